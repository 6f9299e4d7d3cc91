#include "gorm/cor/ps/local_topic.h"

#include "echo.h"
#include "gorm/cor/ps/publisher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <zmq.hpp>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace gorm::cor::test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr const char* kNews = "news";  // the notification

class LocalTopicTest : public ::testing::Test {
protected:
    LocalTopicTest() { Start(0); }
    ~LocalTopicTest() override {
        publisher_.reset();
        EXPECT_TRUE(place_.Content().empty()) << "files of topics are left";
    }
    void Start(std::uint16_t port) {
        Serving serving;
        serving.runtime_directory = place_.path();
        serving.note = "the publisher of the test";
        serving.topic_directory = place_.PathOf("topics");
        publisher_.emplace(loop_, network::uri("wkp.ps://127.0.0.1:" + std::to_string(port) + "/"),
                           serving);
        publisher_->OnSubscription([this](std::string_view path, bool begins) {
            sockets_.Add((begins ? "+" : "-") + std::string(path));
        });
    }
    void Open(const std::string& path) {
        loop_.Run([&] { publisher_->OpenLocal(path, kNews); });
    }
    void Publish(const std::string& text) {
        loop_.Run([&] { publisher_->Publish("/a", text); });
    }
    std::unique_ptr<ps::LocalTopic> Find() {
        return ps::LocalTopic::Find("127.0.0.1", publisher_->port(), "/a");
    }
    struct Subscription {
        std::unique_ptr<ps::Subscriber<Word>> subscriber;
        Heard heard;
        rr::ListenerRegistration registration;
        void Listen() { registration = test::Listen(*subscriber, heard); }
        /// But for news, of which there may be some without any having been published.
        void ListenToEvents() {
            registration = subscriber->AddDataListener(
                [this](auto&, const ps::DataEvent<Word>& event) {
                    if (const std::string& text = event.getData()->text; text != kNews) {
                        heard.Add(text);
                    }
                },
                {nullptr, ps::FilterMode::kAll, {ps::InstanceEvent::kUpdated}});
        }
    };
    std::unique_ptr<Subscription> Subscribe() {
        auto subscription = std::make_unique<Subscription>();
        subscription->subscriber = test::Subscribe(publisher_->port(), "/a");
        return subscription;
    }

    const RuntimeDirectory place_;
    Heard sockets_;
    ServiceLoop loop_;
    std::optional<ps::Publisher> publisher_;
};

TEST_F(LocalTopicTest, EventsKeepTheirOrderAndNotificationsAreMerged) {
    Open("/a");
    auto subscription = Subscribe();
    const auto topic = Find();
    ASSERT_NE(nullptr, topic);
    EXPECT_FALSE(topic->relayed());
    topic->Notify();
    topic->Notify();
    Publish("1");
    Publish("2");
    Publish(kNews);
    subscription->Listen();
    EXPECT_THAT(subscription->heard.Await(4), ElementsAre(kNews, "1", "2", kNews));
    topic->Notify();
    EXPECT_EQ(kNews, subscription->heard.Await(5).back());
    subscription->registration.Release();
    Publish("3");
    subscription->Listen();
    EXPECT_EQ("3", subscription->heard.Await(6).back());

    // A later subscriber is notified that there has been something.
    auto late = Subscribe();
    late->Listen();
    Publish("4");
    EXPECT_THAT(late->heard.Await(2), ElementsAre(kNews, "4"));
    EXPECT_THAT(sockets_.Await(0), ElementsAre());
}

// From the socket to memory, to the socket of a publisher that offers no memory, and back to that
// of a successor: every event once.
TEST_F(LocalTopicTest, ASubscriberMovesWithoutLossOrRepetition) {
    auto subscription = Subscribe();
    sockets_.Await(1);
    subscription->ListenToEvents();
    std::size_t published = 0;
    std::vector<std::string> expected;
    const auto publish = [&] {
        expected.push_back(std::to_string(published++ % 7));
        Publish(expected.back());
    };
    publish();
    subscription->heard.Await(1);
    Open("/a");
    const auto deadline = Clock::now() + kDeadline;
    while (sockets_.Await(0).size() < 2 && Clock::now() < deadline) {
        publish();
        subscription->heard.Await(published);
    }
    ASSERT_THAT(sockets_.Await(0), ElementsAre("+/a", "-/a"));
    publish();
    EXPECT_THAT(subscription->heard.Await(published), ElementsAreArray(expected));

    const std::uint16_t port = publisher_->port();
    const auto topic = Find();
    publisher_.reset();
    EXPECT_TRUE(topic->closed());
    Start(port);
    EXPECT_EQ("+/a", sockets_.Await(3).back());
    publish();
    EXPECT_THAT(subscription->heard.Await(published), ElementsAreArray(expected));
}

TEST_F(LocalTopicTest, ASubscriberAtASocketIsShownInTheMemory) {
    Open("/a");
    const auto topic = Find();
    ASSERT_NE(nullptr, topic);
    zmq::context_t context;
    zmq::socket_t all(context, zmq::socket_type::sub);
    all.connect("tcp://127.0.0.1:" + std::to_string(publisher_->port()));
    const auto await = [&](bool relayed) {
        const auto deadline = Clock::now() + kDeadline;
        while (topic->relayed() != relayed && Clock::now() < deadline) {
            std::this_thread::yield();
        }
        return topic->relayed();
    };
    for (const std::string& filter : {std::string("/a\0", 3), std::string()}) {
        all.set(zmq::sockopt::subscribe, filter);
        EXPECT_TRUE(await(true));
        all.set(zmq::sockopt::unsubscribe, filter);
        EXPECT_FALSE(await(false));
    }
}

// The reader looks by itself once a second: neither a new listener nor the end waits for that.
TEST_F(LocalTopicTest, NoReaderSleepsThroughABeginningOrAnEnd) {
    constexpr int kRounds = 2000;
    Open("/a");
    Publish(kNews);
    int slow = 0;
    for (int round = 0; round < kRounds; ++round) {
        const auto begin = Clock::now();
        auto subscription = Subscribe();
        for (int i = round % 50; i > 0; --i) {
            std::this_thread::yield();
        }
        subscription->Listen();
        EXPECT_THAT(subscription->heard.Await(1), ::testing::Contains(kNews));
        subscription.reset();
        slow += Clock::now() - begin > std::chrono::milliseconds(700) ? 1 : 0;
    }
    EXPECT_LE(slow, 2);
}

// A woken thread shall not wait for the processor of the one that wakes it; all else of the thread
// is as its maker's.
TEST_F(LocalTopicTest, DeliveryHasShortSlicesOfTheProcessor) {
    struct {
        std::uint32_t size, policy;
        std::uint64_t flags;
        std::int32_t nice;
        std::uint32_t priority;
        std::uint64_t runtime_ns, deadline_ns, period_ns;
    } made{}, delivery{};  // of sched_getattr(2)
    Open("/a");
    Heard heard;
    std::unique_ptr<ps::Subscriber<Word>> subscriber;
    rr::ListenerRegistration registration;
    std::thread([&] {
        ASSERT_EQ(0, ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), 5));
        ASSERT_EQ(0, ::syscall(SYS_sched_getattr, 0, &made, sizeof made, 0));
        subscriber = test::Subscribe(publisher_->port(), "/a", {});
    }).join();
    registration = subscriber->AddDataListener(
        [&](auto&, const auto&) {
            ::syscall(SYS_sched_getattr, 0, &delivery, sizeof delivery, 0);
            heard.Add("");
        },
        {nullptr, ps::FilterMode::kAll, {ps::InstanceEvent::kUpdated}});
    Publish("1");
    heard.Await(1);
    EXPECT_EQ(5, delivery.nice);
    EXPECT_EQ(made.policy, delivery.policy);
    if (made.runtime_ns != 0) {  // this kernel has slices of a thread's own
        EXPECT_LT(delivery.runtime_ns, made.runtime_ns);
    }
}

TEST_F(LocalTopicTest, WhatLiesElsewhereOrBelongsToOthersIsNotUsed) {
    const fs::path topics = place_.path() / "topics";
    const fs::path link = place_.PathOf(std::to_string(publisher_->port()) + ".topics");
    const fs::path elsewhere = place_.path() / "elsewhere";
    const auto lead = [&](const fs::path& to) {
        fs::remove(link);
        fs::create_symlink(to, link);
    };
    const struct {
        const char* name;
        std::function<void()> change;
        bool for_root_only = false;
    } cases[] = {
        {"nowhere", [&] { lead(elsewhere); }},
        {"to a device", [&] { lead("/dev/zero"); }},
        {"to itself", [&] { lead(link); }},
        {"to what others may write", [&] { fs::permissions(topics, fs::perms(0777)); }},
        {"a directory instead", [&] { fs::remove(link), fs::create_directory(link); }},
        {"a file instead", [&] { fs::remove(link), fs::copy_file("/proc/self/exe", link); }},
        {"another's directory", [&] { EXPECT_EQ(0, ::chown(topics.c_str(), 54321, 54321)); }, true},
        {"another's link", [&] { EXPECT_EQ(0, ::lchown(link.c_str(), 54321, 54321)); }, true},
    };
    Open("/a");
    for (const auto& c : cases) {
        if (c.for_root_only && ::geteuid() != 0) {
            continue;  // only root can give files away
        }
        SCOPED_TRACE(c.name);
        ASSERT_NE(nullptr, Find());
        c.change();
        EXPECT_EQ(nullptr, Find());
        const std::size_t before = sockets_.Await(0).size();
        auto subscription = Subscribe();
        sockets_.Await(before + 1);
        subscription->Listen();
        Publish("1");
        EXPECT_THAT(subscription->heard.Await(1), ElementsAre("1"));
        subscription.reset();
        sockets_.Await(before + 2);
        EXPECT_EQ(0, ::chown(topics.c_str(), ::geteuid(), ::getegid()));
        fs::permissions(topics, fs::perms(0700));
        lead(topics);
    }
}

}  // namespace
}  // namespace gorm::cor::test
