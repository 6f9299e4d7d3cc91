#include "gorm/cor/errors.h"
#include "network/uri.hpp"
#include "probes.h"

#include <gtest/gtest.h>

#include <chrono>

namespace kvo::test {
namespace {

const LogLine kEstablished{1, "KvoDataTransferLib: Broker connection established"};

class ConnectionTest : public testing::Test {
protected:
    CapturedLog log_;
    ScriptedBroker broker_;
    TransferProbe object_{log_.kvo_logger()};
};

TEST_F(ConnectionTest, ReplyTimeIsLoweredBelowTheHeartbeatTimeout) {
    const struct {
        int timeout;
        int reply_time;  // afterwards; 6 before
    } cases[] = {{10, 6}, {7, 6}, {6, 5}, {5, 4}, {1, 0}, {0, -1}};
    for (const auto& c : cases) {
        log_.Clear();
        broker_.ClearCalls();
        broker_.Always("GetHeartbeatTimeout", c.timeout);
        TransferProbe object(log_.kvo_logger());
        EXPECT_EQ(object.InitCOR(broker_.full_uri()), 1) << c.timeout;
        EXPECT_EQ(object.transfer().reply_time, c.reply_time) << c.timeout;
        EXPECT_EQ(broker_.calls(), Calls({"GetHeartbeatTimeout()"})) << c.timeout;
        Lines lines;
        if (c.reply_time != 6) {
            lines = {{3, "heartbeat_timeout has to be greater than reply_time!"},
                     {2, "heartbeat timeout [s]: " + std::to_string(c.timeout)},
                     {2, "new reply time [s]: " + std::to_string(c.reply_time)}};
        }
        lines.push_back(kEstablished);
        EXPECT_EQ(log_.lines(), lines) << c.timeout;
    }
}

TEST_F(ConnectionTest, TheClientInUseCarriesTheLoweredReplyTime) {
    broker_.Always("GetHeartbeatTimeout", 2);
    ASSERT_EQ(object_.InitCOR(broker_.full_uri()), 1);
    broker_.Always("ListRegisteredStreams", ScriptedBroker::Silence{});
    const auto client = object_.GetBrokerClient();
    ASSERT_NE(client, nullptr);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_THROW(client->ListRegisteredStreams(), gorm::cor::rr::ReplyTimeout);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    EXPECT_EQ(object_.GetBrokerClient(), nullptr);
}

TEST_F(ConnectionTest, FailedTimeoutQueryIsLoggedAndTheConnectionStands) {
    broker_.Always("GetHeartbeatTimeout", ScriptedBroker::Failure{"ask later"});
    EXPECT_EQ(object_.InitCOR(broker_.full_uri()), 1);
    EXPECT_EQ(object_.transfer().reply_time, 6);
    EXPECT_TRUE(LoggedException(log_, "ask later", "KvoDataTransferLib: CheckHeartbeatTimeout()"));
    EXPECT_EQ(log_.lines().back(), kEstablished);
}

TEST_F(ConnectionTest, MissingBrokerFailsAfterTenSeconds) {
    broker_.Stop();
    object_.transfer().reply_time = 1;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(object_.InitCOR(broker_.full_uri()), -1);
    const auto taken = std::chrono::steady_clock::now() - begin;
    EXPECT_GT(taken, std::chrono::seconds(9));
    EXPECT_LT(taken, std::chrono::seconds(20));
    EXPECT_TRUE(LoggedException(log_, "", "KvoDataTransferLib: CheckHeartbeatTimeout()"));
    EXPECT_EQ(log_.lines().back(), (LogLine{4, "KvoDataTransferLib: Broker connection failed"}));
    EXPECT_FALSE(object_.transfer().connected_to_broker);
}

TEST_F(ConnectionTest, InvalidUriThrows) {
    PublisherProbe publisher(log_.kvo_logger());
    publisher.SetBufferSize(64, 4);
    EXPECT_THROW(publisher.RegisterPublisher("://:5000", "cam", false), network::uri_syntax_error);
    EXPECT_THROW(publisher.RegisterPublisher("wkp.none://127.0.0.1:5000", "cam", false),
                 gorm::cor::UnknownScheme);
}

}  // namespace
}  // namespace kvo::test
