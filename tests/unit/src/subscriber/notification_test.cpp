#include "probes.h"
#include "sample_stream.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <future>

namespace kvo::test {
namespace {

constexpr std::uint32_t kNewData = 0;
constexpr std::uint32_t kPubReg = 1;
constexpr std::uint32_t kPubUnreg = 2;
constexpr std::uint32_t kShmDel = 3;
constexpr std::uint32_t kUnknown = 7;

const LogLine kUnknownLine{3, "KvoDataSubscriber: unknown NotificationType received"};

// A registered subscriber, a broker that notifies it and a writer of its stream.
class NotificationTest : public testing::Test {
protected:
    NotificationTest() {
        broker_.CreateStream("cam");
        broker_.Always("GetHeartbeatPeriod", 0);  // no lines of a heartbeat among ours
        writer_ = OpenWriter(broker_.stream_path(), "cam", 64, log_.kvo_logger());
        EXPECT_EQ(subscriber_.RegisterSubscriber(broker_.uri(), "cam", "", 1), 1);
        EXPECT_TRUE(log_.WaitFor({1, "KvoDataSubscriber: Notification subscription started..."}));
        log_.Clear();
    }
    void Write(int sample_tag) {
        const unsigned char payload[] = {1, 2, 3};
        writer_->WriteData(-1, 0, sample_tag, payload, 3, nullptr, 0, 1);
    }
    // Returns when everything that was sent before has been handled.
    void Notify(std::uint32_t type) {
        const std::size_t before = log_.Count(kUnknownLine.text);
        ASSERT_TRUE(broker_.Notify("cam", type));
        ASSERT_TRUE(broker_.Notify("cam", kUnknown));
        ASSERT_TRUE(log_.WaitFor(kUnknownLine, before + 1));
    }
    int ReadTag() {
        const DataSample* const sample = subscriber_.ReadData();
        return sample == nullptr ? -1 : sample->sample_tag();
    }

    CapturedLog log_;
    ScriptedBroker broker_;
    std::unique_ptr<KvoMemoryAccessor> writer_;
    SubscriberProbe subscriber_{log_.kvo_logger()};
};

TEST_F(NotificationTest, EachTypeIsLoggedAndAnEventWithoutSampleIsNot) {
    const struct {
        std::uint32_t type;
        LogLine line;
    } cases[] = {
        {kNewData, {1, "KvoDataSubscriber: NEW_DATA notification received"}},
        {kPubReg, {2, "KvoDataSubscriber: PUB_REG notification received"}},
        {kPubUnreg, {2, "KvoDataSubscriber: PUB_UNREG notification received"}},
        {kShmDel, {1, "KvoDataSubscriber: SHM_DEL notification received"}},
        {4, kUnknownLine},
        {4'000'000'000, kUnknownLine},
    };
    for (const auto& c : cases) {
        ASSERT_TRUE(broker_.Notify("cam", c.type));
        EXPECT_TRUE(log_.WaitFor(c.line)) << c.type;
        log_.Clear();
    }
    ASSERT_TRUE(broker_.NotifyBytes("cam", "no sample"));
    ASSERT_TRUE(broker_.Notify("cam", kUnknown));
    ASSERT_TRUE(log_.WaitFor(kUnknownLine));
    EXPECT_EQ(log_.lines(), Lines({kUnknownLine}));
}

TEST_F(NotificationTest, MemoryFollowsThePublisher) {
    Write(1);
    Notify(kPubUnreg);
    EXPECT_EQ(ReadTag(), 1);
    Write(2);
    Notify(kShmDel);
    EXPECT_EQ(ReadTag(), -1);
    Notify(kPubReg);  // the same segment again: it goes on from its place
    EXPECT_EQ(ReadTag(), 2);
    Write(3);
    EXPECT_EQ(ReadTag(), 3);
}

TEST_F(NotificationTest, StopReturnsAtOnceAndTheThreadWaitsForTheHandler) {
    std::promise<void> entered;
    std::promise<void> leave;
    subscriber_.connect([&] {
        entered.set_value();
        leave.get_future().wait();
    });
    Write(1);
    ASSERT_TRUE(broker_.Notify("cam", kNewData));
    ASSERT_EQ(entered.get_future().wait_for(kDeadline), std::future_status::ready);
    subscriber_.StopNotificationSubscription();
    subscriber_.StopNotificationSubscription();
    EXPECT_EQ(log_.Count("KvoDataSubscriber: NotificationSubscription already stopped"), 1U);
    const LogLine stopped{1, "KvoDataSubscriber: Notification subscription stopped"};
    EXPECT_FALSE(log_.WaitFor(stopped, 1, std::chrono::milliseconds(300)));
    leave.set_value();
    EXPECT_TRUE(log_.WaitFor(stopped));
}

}  // namespace
}  // namespace kvo::test
