#include "gorm/cor/errors.h"
#include "network/uri.hpp"
#include "probes.h"

#include <gtest/gtest.h>

#include <chrono>

namespace kvo::test {
namespace {

const LogLine kEstablished{1, "KvoDataTransferLib: Broker connection established"};

TEST(Connection, TheReplyTimeStaysBelowTheHeartbeatTimeout) {
    const struct {
        int timeout;
        int reply_time;  // afterwards; 6 before
    } cases[] = {{10, 6}, {7, 6}, {6, 5}, {5, 4}, {1, 0}, {0, -1}};
    for (const auto& c : cases) {
        CapturedLog log;
        ScriptedBroker broker;
        broker.Always("GetHeartbeatTimeout", c.timeout);
        TransferProbe object(log.kvo_logger());
        EXPECT_EQ(object.InitCOR(broker.full_uri()), 1) << c.timeout;
        EXPECT_EQ(object.transfer().reply_time, c.reply_time) << c.timeout;
        EXPECT_EQ(broker.calls(), Calls({"GetHeartbeatTimeout()"})) << c.timeout;
        Lines lines;
        if (c.reply_time != 6) {
            lines = {{3, "heartbeat_timeout has to be greater than reply_time!"},
                     {2, "heartbeat timeout [s]: " + std::to_string(c.timeout)},
                     {2, "new reply time [s]: " + std::to_string(c.reply_time)}};
        }
        lines.push_back(kEstablished);
        EXPECT_EQ(log.lines(), lines) << c.timeout;
    }
}

TEST(Connection, TheClientInUseCarriesTheLoweredReplyTime) {
    CapturedLog log;
    ScriptedBroker broker;
    broker.Always("GetHeartbeatTimeout", 2);
    TransferProbe object(log.kvo_logger());
    ASSERT_EQ(object.InitCOR(broker.full_uri()), 1);
    broker.Always("ListRegisteredStreams", ScriptedBroker::Silence{});
    const auto client = object.GetBrokerClient();
    ASSERT_NE(client, nullptr);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_THROW(client->ListRegisteredStreams(), gorm::cor::rr::ReplyTimeout);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    EXPECT_EQ(object.GetBrokerClient(), nullptr);
}

TEST(Connection, AFailedTimeoutQueryIsLoggedAndTheConnectionStands) {
    CapturedLog log;
    ScriptedBroker broker;
    broker.Always("GetHeartbeatTimeout", ScriptedBroker::Failure{"ask later"});
    TransferProbe object(log.kvo_logger());
    EXPECT_EQ(object.InitCOR(broker.full_uri()), 1);
    EXPECT_EQ(object.transfer().reply_time, 6);
    EXPECT_TRUE(LoggedException(log, "ask later", "KvoDataTransferLib: CheckHeartbeatTimeout()"));
    EXPECT_EQ(log.lines().back(), kEstablished);
}

TEST(Connection, WithoutABrokerItFailsAfterTenSeconds) {
    CapturedLog log;
    std::string uri;
    {
        const ScriptedBroker broker;
        uri = broker.full_uri();
    }
    TransferProbe object(log.kvo_logger());
    object.transfer().reply_time = 1;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(object.InitCOR(uri), -1);
    const auto taken = std::chrono::steady_clock::now() - begin;
    EXPECT_GT(taken, std::chrono::seconds(9));
    EXPECT_LT(taken, std::chrono::seconds(20));
    EXPECT_TRUE(LoggedException(log, "", "KvoDataTransferLib: CheckHeartbeatTimeout()"));
    EXPECT_EQ(log.lines().back(), (LogLine{4, "KvoDataTransferLib: Broker connection failed"}));
    EXPECT_FALSE(object.transfer().connected_to_broker);
}

TEST(Connection, ATextThatNamesNoBrokerIsTheCallersError) {
    CapturedLog log;
    PublisherProbe publisher(log.kvo_logger());
    publisher.SetBufferSize(64, 4);
    EXPECT_THROW(publisher.RegisterPublisher("://:5000", "cam", false), network::uri_syntax_error);
    EXPECT_THROW(publisher.RegisterPublisher("wkp.none://127.0.0.1:5000", "cam", false),
                 gorm::cor::UnknownScheme);
}

}  // namespace
}  // namespace kvo::test
