#include "probes.h"
#include "sample_stream.h"

#include <gtest/gtest.h>

#include <future>
#include <sys/wait.h>
#include <unistd.h>

namespace kvo::test {
namespace {

const LogLine kPublisherLost{4, "KvoDataPublisher: Broker connection aborted"};
const LogLine kSubscriberLost{4, "KvoDataSubscriber: Broker connection aborted"};

class LifetimeTest : public testing::Test {
protected:
    LifetimeTest() { broker_.CreateStream("cam"); }
    std::unique_ptr<PublisherProbe> MakePublisher(CapturedLog& log,
                                                  const std::string& stream = "cam") {
        auto publisher = std::make_unique<PublisherProbe>(log.kvo_logger());
        publisher->SetBufferSize(64, 4);
        EXPECT_EQ(publisher->RegisterPublisher(broker_.uri(), stream, false), 1);
        return publisher;
    }
    std::unique_ptr<SubscriberProbe> MakeSubscriber(CapturedLog& log) {
        auto subscriber = std::make_unique<SubscriberProbe>(log.kvo_logger());
        EXPECT_EQ(subscriber->RegisterSubscriber(broker_.uri(), "cam", "", 1), 1);
        return subscriber;
    }

    ScriptedBroker broker_;
};

TEST_F(LifetimeTest, DestroyedOrUnregisteredWithoutBrokerDoesNotRegisterAgain) {
    CapturedLog log;
    auto publisher = MakePublisher(log);
    auto subscriber = MakeSubscriber(log);
    broker_.CreateStream("unregistered");
    const auto unregistered = MakePublisher(log, "unregistered");
    ASSERT_TRUE(unregistered->WaitForHeartbeat(true));
    broker_.CreateStream("witness");
    CapturedLog witness_log;
    const auto witness = MakePublisher(witness_log, "witness");

    broker_.Stop();
    ASSERT_TRUE(log.WaitFor(kPublisherLost, 2));
    ASSERT_TRUE(log.WaitFor(kSubscriberLost));
    ASSERT_TRUE(witness_log.WaitFor(kPublisherLost));
    publisher.reset();
    subscriber.reset();
    // Two stops of one heartbeat at a time are an error of the second.
    ASSERT_TRUE(unregistered->WaitForHeartbeat(false));
    EXPECT_EQ(unregistered->UnregisterPublisher(), -1);
    broker_.ClearCalls();
    const std::size_t lines = log.lines().size();
    broker_.Start();
    ASSERT_TRUE(witness_log.WaitFor({2, "KvoDataPublisher: proceeding"}));
    EXPECT_EQ(log.lines().size(), lines);
    EXPECT_EQ(broker_.Count("AddPublisher"), 1U);  // of the witness
    EXPECT_EQ(broker_.Count("AddSubscriber"), 0U);
}

TEST_F(LifetimeTest, DestroyedWhileTheBrokerReturns) {
    broker_.Always("GetHeartbeatTimeout", 2);  // a reply time of one second
    for (int round = 0; round < 6; ++round) {
        auto log = std::make_unique<CapturedLog>();
        auto publisher = MakePublisher(*log);
        auto subscriber = MakeSubscriber(*log);
        broker_.Stop();
        ASSERT_TRUE(log->WaitFor(kPublisherLost));
        ASSERT_TRUE(log->WaitFor(kSubscriberLost));
        broker_.ClearCalls();
        if (round % 3 == 2) {
            broker_.Next("AddPublisher", {ScriptedBroker::Silence{}});
        }
        broker_.Start();
        if (round % 3 != 0) {
            ASSERT_TRUE(broker_.WaitForCall("AddPublisher"));
        }
        publisher.reset();
        subscriber.reset();
        log.reset();  // no thread writes to it any more
        broker_.Resume();
    }
}

TEST_F(LifetimeTest, DestroyedRightAfterRegistrationEndsItsThreads) {
    for (int round = 0; round < 20; ++round) {
        CapturedLog log;
        MakePublisher(log);
        MakeSubscriber(log);
    }
}

TEST_F(LifetimeTest, SlotMayDestroyItsSubscriber) {
    CapturedLog log;
    const auto writer = OpenWriter(broker_.stream_path(), "cam", 64, log.kvo_logger());
    auto subscriber = MakeSubscriber(log);
    std::promise<void> destroyed;
    int calls = 0;
    subscriber->connect([&] {
        ++calls;
        subscriber.reset();
        destroyed.set_value();
    });
    for (int tag = 1; tag <= 3; ++tag) {
        writer->WriteData(-1, 0, tag, nullptr, 0, nullptr, 0, 1);
    }
    ASSERT_TRUE(broker_.Notify("cam", 0));
    ASSERT_EQ(destroyed.get_future().wait_for(kDeadline), std::future_status::ready);
    EXPECT_EQ(calls, 1);
}

TEST_F(LifetimeTest, SecondRegistrationReplacesTheFirst) {
    CapturedLog log;
    auto subscriber = MakeSubscriber(log);
    int first = 0;
    int second = 0;
    subscriber->connect([&] { ++first; });
    ASSERT_EQ(subscriber->RegisterSubscriber(broker_.uri(), "cam", "", 1), 1);
    subscriber->connect([&] { ++second; });
    const auto writer = OpenWriter(broker_.stream_path(), "cam", 64, log.kvo_logger());
    writer->WriteData(-1, 0, 1, nullptr, 0, nullptr, 0, 1);
    const LogLine stopped{1, "KvoDataSubscriber: Notification subscription stopped"};
    ASSERT_TRUE(log.WaitFor(stopped));
    ASSERT_TRUE(NotifyUntil(broker_, "cam", 2, log,
                            {2, "KvoDataSubscriber: PUB_UNREG notification received"}));
    ASSERT_TRUE(broker_.Notify("cam", 0));
    ASSERT_TRUE(broker_.Notify("cam", 7));
    ASSERT_TRUE(log.WaitFor({3, "KvoDataSubscriber: unknown NotificationType received"}));
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 1);
}

TEST_F(LifetimeTest, EveryOperationFailsAtOnceInAForkedChild) {
    CapturedLog log;
    auto publisher = MakePublisher(log);
    auto subscriber = MakeSubscriber(log);
    KvoStatisticsClient statistics(log.kvo_logger(), broker_.uri());
    broker_.ClearCalls();
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        alarm(20);  // a child that hangs is a failure
        int wrong = 0;
        publisher->WriteData(1, {1}, {});
        publisher->PublishData();
        wrong += publisher->UnregisterPublisher() != -1;
        wrong += publisher->RegisterPublisher(broker_.uri(), "cam", false) != -1;
        wrong += subscriber->ReadData() != nullptr;
        wrong += !subscriber->get_statistics().text_value.empty();
        wrong += subscriber->UnregisterSubscriber() != -1;
        wrong += subscriber->RegisterSubscriber(broker_.uri(), "cam", "", 1) != -1;
        wrong += !statistics.GetRegisteredStreams().empty();
        publisher.reset();
        subscriber.reset();
        _exit(wrong);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(broker_.calls(), Calls());
    publisher->WriteData(2, {2}, {});
    EXPECT_EQ(subscriber->ReadData()->sample_tag(), 2);
    EXPECT_EQ(publisher->UnregisterPublisher(), 1);
}

}  // namespace
}  // namespace kvo::test
