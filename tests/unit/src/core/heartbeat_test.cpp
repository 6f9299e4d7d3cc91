#include "probes.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

namespace kvo::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

const LogLine kStarted{1, "KvoDataTransferLib: HeartbeatThread started"};

class HeartbeatTest : public testing::Test {
protected:
    HeartbeatTest() : object_(log_.kvo_logger()) {
        EXPECT_EQ(object_.InitCOR(broker_.full_uri()), 1);
        log_.Clear();
    }

    CapturedLog log_;
    ScriptedBroker broker_;
    TransferProbe object_;
};

TEST_F(HeartbeatTest, OneHeartbeatIsSentPerPeriodAndAFailedOneIsLogged) {
    const ScriptedBroker::Failure failure{"not you"};
    broker_.Next("SendHeartbeat", {failure, failure});
    const auto begin = steady_clock::now();
    object_.StartHeartbeat(1, "cam");
    ASSERT_TRUE(broker_.WaitForHeartbeats(3));
    object_.StopHeartbeat();
    auto before = begin;
    for (const ScriptedBroker::Heartbeat& heartbeat : broker_.heartbeats()) {
        EXPECT_EQ(heartbeat.id, "cam");
        EXPECT_GT(heartbeat.at - before, milliseconds(900));
        EXPECT_LT(heartbeat.at - before, seconds(4));
        before = heartbeat.at;
    }
    EXPECT_EQ(log_.lines().size(), 5U);
    EXPECT_EQ(log_.lines().front(), kStarted);
    EXPECT_TRUE(LoggedException(log_, "not you", "KvoDataTransferLib: HeartbeatThread()"));
    EXPECT_EQ(log_.Count("thrown in KvoDataTransferLib: HeartbeatThread()"), 2U);
}

TEST_F(HeartbeatTest, PeriodBelowOneStartsNoHeartbeat) {
    for (const int period : {0, -5}) {
        log_.Clear();
        object_.StartHeartbeat(period, "cam");
        EXPECT_EQ(log_.lines(), Lines({{3, "KvoDataTransferLib: Heartbeat not activated!"}}));
        EXPECT_EQ(object_.transfer().heartbeat_period, period);
        object_.StopHeartbeat();  // returns at once, twice
        object_.StopHeartbeat();
    }
    EXPECT_TRUE(broker_.heartbeats().empty());
}

TEST_F(HeartbeatTest, StopWakesTheThreadAndStartBeginsAgain) {
    for (int i = 0; i < 3; ++i) {
        log_.Clear();
        object_.StartHeartbeat(3600, "cam");
        ASSERT_TRUE(object_.WaitForHeartbeat(true));
        const auto begin = steady_clock::now();
        object_.StopHeartbeat();
        EXPECT_LT(steady_clock::now() - begin, seconds(2));
        EXPECT_FALSE(object_.heartbeat_running());
        EXPECT_EQ(log_.lines(), Lines({kStarted}));
    }
}

TEST_F(HeartbeatTest, StopRightAfterStartReturns) {
    for (int i = 0; i < 300; ++i) {
        object_.StartHeartbeat(3600, "cam");
        object_.StopHeartbeat();
    }
    ASSERT_TRUE(log_.WaitFor(kStarted, 300));
}

}  // namespace
}  // namespace kvo::test
