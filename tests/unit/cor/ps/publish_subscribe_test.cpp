#include "echo.h"
#include "gorm/cor/ps/publisher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zmq.hpp>

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
        return test::Subscribe(publisher.port(), path);
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
    const auto second = Listen(*longer, others);
    EXPECT_THAT(others.Await(1), ElementsAre("other"));
    subscriber.reset();
    EXPECT_EQ("-/a", subscriptions.Await(3).back());
}

TEST_F(Topics, EverySubscriptionIsToldAndSoIsEachEnd) {
    auto first = Subscribe("/a");
    auto second = Subscribe("/a");
    zmq::context_t context;
    zmq::socket_t prefix(context, zmq::socket_type::sub);  // watches all that begins so: no topic
    prefix.connect("tcp://127.0.0.1:" + std::to_string(publisher.port()));
    prefix.set(zmq::sockopt::subscribe, "/a");
    EXPECT_THAT(subscriptions.Await(2), ElementsAre("+/a", "+/a"));
    Publish("/a/b", "sent to the prefix");
    zmq::message_t topic;
    prefix.set(zmq::sockopt::rcvtimeo, 100);
    while (!prefix.recv(topic)) {  // its subscription may still be on the way
        Publish("/a/b", "sent to the prefix");
    }
    first.reset();
    EXPECT_EQ(3U, subscriptions.Await(3).size());
    second.reset();
    EXPECT_THAT(subscriptions.Await(4), ElementsAre("+/a", "+/a", "-/a", "-/a"));
}

TEST_F(Topics, AFilterLetsOneInstancePassAndAListenerMayDestroyItsSubscriber) {
    auto subscriber = Subscribe("/a");
    subscriptions.Await(1);
    Heard heard;
    const auto wanted = subscriber->CreateSample();
    wanted->text = "mine";
    const auto registration = subscriber->AddDataListener(
        [&](auto&, const ps::DataEvent<Word>& event) {
            const std::string text = event.getData()->text;
            if (heard.Await(0).size() == 1) {
                subscriber.reset();
            }
            heard.Add(text);
        },
        {wanted, ps::FilterMode::kInstance, {ps::InstanceEvent::kUpdated}});
    for (const char* text : {"yours", "mine", "theirs", "mine", "mine"}) {
        Publish("/a", text);
    }
    EXPECT_THAT(heard.Await(2), ElementsAre("mine", "mine"));
}

}  // namespace
}  // namespace gorm::cor::test
