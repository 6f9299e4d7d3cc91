#include "echo.h"
#include "gorm/cor/ps/publisher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

namespace gorm::cor::test {
namespace {

using ::testing::ElementsAre;

class Topics : public ::testing::Test {
protected:
    Topics() {
        publisher.OnSubscription([this](std::string_view path, bool begins) {
            subscriptions.Add((begins ? "+" : "-") + std::string(path));
        });
    }
    std::unique_ptr<ps::Subscriber<Word>> Subscribe(const std::string& path) {
        const std::string uri = "wkp.ps://127.0.0.1:" + std::to_string(publisher.port()) + path;
        return loadCorForUri(uri, {})
            .getCor(network::uri(uri))
            .CreateSubscriber<Word>(network::uri(uri), {});
    }
    void Publish(const std::string& path, const std::string& text) {
        loop.Run([&] { publisher.Publish(path, text); });
    }
    rr::ListenerRegistration Listen(ps::Subscriber<Word>& subscriber, Heard& heard) {
        return subscriber.AddDataListener(
            [&heard](auto&, const ps::DataEvent<Word>& event) {
                heard.Add(event.getData()->text);
                throw std::runtime_error("listener");  // logged, and the next event comes
            },
            {nullptr, ps::FilterMode::kAll, {ps::InstanceEvent::kUpdated}});
    }

    Heard subscriptions;
    ServiceLoop loop;
    ps::Publisher publisher{loop, network::uri("wkp.ps://127.0.0.1:0/")};
};

TEST_F(Topics, ATopicGetsItsOwnEventsInOrderAlsoThoseFromBeforeTheListener) {
    auto subscriber = Subscribe("/a");
    auto longer = Subscribe("/a/b");
    subscriptions.Await(2);
    Publish("/a", "1");
    Publish("/a/b", "other");
    Publish("/a", "damaged");
    Publish("/a", "2");
    Heard heard;
    auto registration = Listen(*subscriber, heard);
    EXPECT_THAT(heard.Await(2), ElementsAre("1", "2"));
    registration.Release();
    Publish("/a", "3");
    registration = Listen(*subscriber, heard);
    EXPECT_THAT(heard.Await(3), ElementsAre("1", "2", "3"));
    Heard others;
    registration = Listen(*longer, others);
    EXPECT_THAT(others.Await(1), ElementsAre("other"));
    subscriber.reset();
    EXPECT_EQ("-/a", subscriptions.Await(3).back());
}

TEST_F(Topics, AFilterLetsOneInstancePass) {
    auto subscriber = Subscribe("/a");
    subscriptions.Await(1);
    Heard heard;
    const auto wanted = subscriber->CreateSample();
    wanted->text = "mine";
    const auto registration = subscriber->AddDataListener(
        [&](auto&, const ps::DataEvent<Word>& event) { heard.Add(event.getData()->text); },
        {wanted, ps::FilterMode::kInstance, {ps::InstanceEvent::kUpdated}});
    for (const char* text : {"yours", "mine", "theirs", "mine"}) {
        Publish("/a", text);
    }
    EXPECT_THAT(heard.Await(2), ElementsAre("mine", "mine"));
}

TEST_F(Topics, ASubscriberMayBeDestroyedByItsOwnListenerAndIsWaitedForByOthers) {
    auto subscriber = Subscribe("/a");
    subscriptions.Await(1);
    Heard heard;
    rr::ListenerRegistration registration = subscriber->AddDataListener(
        [&](auto&, const ps::DataEvent<Word>&) {
            subscriber.reset();
            heard.Add("destroyed");
        },
        {nullptr, ps::FilterMode::kAll, {ps::InstanceEvent::kUpdated}});
    Publish("/a", "1");
    EXPECT_THAT(heard.Await(1), ElementsAre("destroyed"));

    auto other = Subscribe("/b");
    subscriptions.Await(3);
    std::promise<void> entered;
    std::promise<void> go;
    bool done = false;
    registration = other->AddDataListener(
        [&](auto&, const ps::DataEvent<Word>&) {
            entered.set_value();
            go.get_future().wait();
            done = true;
        },
        {nullptr, ps::FilterMode::kAll, {ps::InstanceEvent::kUpdated}});
    Publish("/b", "1");
    entered.get_future().wait();
    auto destroyed = std::async(std::launch::async, [&] {
        other.reset();
        return done;
    });
    go.set_value();
    EXPECT_TRUE(destroyed.get());
}

}  // namespace
}  // namespace gorm::cor::test
