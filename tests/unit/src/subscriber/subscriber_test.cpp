#include "probes.h"

#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <stdexcept>

namespace kvo::test {
namespace {

using Failure = ScriptedBroker::Failure;

const std::string kRemote = "wkp.rr://far:5000";
const std::string kRemoteFull = kRemote + "/broker/Broker1";

class SubscriberTest : public testing::Test {
protected:
    SubscriberTest() {
        broker_.CreateStream("cam");
        log_.Clear();
    }
    int Register(const std::string& remote = "") {
        return subscriber_.RegisterSubscriber(broker_.uri(), "cam", remote, 2);
    }
    // The subscriber's identity, as it presented it.
    std::string Uuid() const {
        for (const std::string& call : broker_.calls()) {
            if (call.rfind("AddSubscriber(", 0) == 0) {
                return call.substr(14, 36);
            }
        }
        return {};
    }
    bool Registered() {
        return Register() == 1 && broker_.WaitForHeartbeats(1) &&
               log_.WaitFor({1, "KvoDataSubscriber: Notification subscription started..."});
    }

    CapturedLog log_;
    ScriptedBroker broker_;
    SubscriberProbe subscriber_{log_.kvo_logger()};
};

TEST_F(SubscriberTest, RegistersSubscribesAndUnregisters) {
    ASSERT_TRUE(Registered());
    const std::string uuid = Uuid();
    EXPECT_EQ(broker_.calls(),
              Calls({"GetHeartbeatTimeout()", "HasLocalPublisher(cam)",
                     "AddSubscriber(" + uuid + ", cam, \"\", 10000, 10)", "GetHeartbeatPeriod()",
                     "GetShmFilePath(cam)", "GetNotificationPort(cam)"}));
    EXPECT_EQ(broker_.heartbeats().front().id, uuid);
    Lines lines = log_.lines();
    std::erase(lines, LogLine{1, "KvoDataTransferLib: HeartbeatThread started"});
    std::erase(lines, LogLine{1, "KvoDataSubscriber: Notification subscription started..."});
    EXPECT_EQ(lines, Lines({{2, "KvoDataSubscriber: Broker URI: " + broker_.full_uri()},
                            {2, "KvoDataSubscriber: Remote Broker URI: "},
                            {1, "KvoStatisticsClient: Broker connection established"},
                            {1, "KvoDataTransferLib: Broker connection established"},
                            {1, "KvoDataSubscriber parameters:"},
                            {1, "subscriber_uuid: " + uuid},
                            {1, "data_stream_identifier: cam"},
                            {1, "remote_broker_uri: "},
                            {1, "latency [ms]: 10000"},
                            {1, "deadline [s]: 10"},
                            {1, "KvoDataSubscriber: KvoMemoryAccessor created"},
                            {2, "KvoDataSubscriber: Start reading..."},
                            {1, "KvoDataSubscriber: notification_uri: wkp.ps://127.0.0.1:" +
                                    std::to_string(broker_.notification_port()) + "/cam"},
                            {1, "KvoDataSubscriber: NotificationSubscriber initialized"},
                            {2, "KvoDataSubscriber: Subscriber registered"}}));

    broker_.Always("GetStreamStatistics",
                   std::vector<std::string>{"1", "2", "3", "4", "5", "6", "seven"});
    EXPECT_EQ(subscriber_.get_statistics().text_value, "seven");
    broker_.ClearCalls();
    log_.Clear();
    broker_.Next("RemoveSubscriber", {Failure{"unknown"}});
    EXPECT_EQ(subscriber_.UnregisterSubscriber(), 1);
    EXPECT_EQ(broker_.calls(), Calls({"RemoveSubscriber(cam, " + uuid + ")"}));
    EXPECT_TRUE(LoggedException(log_, "unknown", "KvoDataSubscriber: UnregisterSubscriber()"));
    EXPECT_TRUE(log_.WaitFor({1, "KvoDataSubscriber: Notification subscription stopped"}));
    EXPECT_FALSE(subscriber_.heartbeat_running());
    EXPECT_EQ(subscriber_.get_statistics().text_value, "");

    EXPECT_EQ(subscriber_.UnregisterSubscriber(), 1);
    EXPECT_EQ(log_.Count("KvoDataSubscriber: NotificationSubscription already stopped"), 1U);
}

TEST_F(SubscriberTest, PathsAreCheckedBeforeTheBrokerIsCalled) {
    const struct {
        std::string broker_uri;
        std::string remote_broker_uri;
        Lines lines;
    } cases[] = {
        {"", "", {}},
        {"", kRemote, {}},
        {broker_.uri() + "/broker/Broker2", "", {{4, "Invalid URI!"}}},
        {broker_.uri(), "wkp.rr://far", {{4, "Invalid URI!"}}},
        {"wkp.rr://near", "wkp.rr://far", {{4, "Invalid URI!"}, {4, "Invalid URI!"}}},
    };
    for (const auto& c : cases) {
        log_.Clear();
        EXPECT_EQ(subscriber_.RegisterSubscriber(c.broker_uri, "cam", c.remote_broker_uri, 1), -1);
        EXPECT_EQ(log_.lines(), c.lines) << c.broker_uri << " " << c.remote_broker_uri;
    }
    EXPECT_EQ(subscriber_.ReadData(), nullptr);
    EXPECT_THROW(subscriber_.connect([] {}), std::logic_error);
    EXPECT_EQ(subscriber_.get_statistics().text_value, "");
    EXPECT_EQ(subscriber_.UnregisterSubscriber(), 1);
    EXPECT_EQ(broker_.calls(), Calls());
}

TEST_F(SubscriberTest, MissingPublisherIsRejected) {
    broker_.Always("HasLocalPublisher", false);
    broker_.Always("HasRemotePublisher", false);
    EXPECT_EQ(Register(), -1);
    EXPECT_EQ(log_.lines().back(),
              (LogLine{3, "KvoDataSubscriber: No local Publisher for this data stream exists"}));
    EXPECT_EQ(Register(kRemote), -1);
    EXPECT_EQ(log_.lines().back(),
              (LogLine{3, "KvoDataSubscriber: No remote Publisher for this data stream exists"}));
    EXPECT_EQ(broker_.calls(),
              Calls({"GetHeartbeatTimeout()", "HasLocalPublisher(cam)", "GetHeartbeatTimeout()",
                     "HasRemotePublisher(" + kRemoteFull + ", cam)"}));
}

TEST_F(SubscriberTest, RejectionIsLoggedAndReturned) {
    const struct {
        int code;
        const char* message;
    } cases[] = {
        {-3, "KvoDataSubscriber: Data stream identifier already in use!"},
        {-2, "KvoDataSubscriber: Not enough memory available!"},
        {-4, "KvoDataSubscriber: Shared Memory file already exists!"},
        {7, "KvoDataSubscriber: Unhandled error code: 7"},
    };
    for (const auto& c : cases) {
        broker_.ClearCalls();
        broker_.Always("AddSubscriber", c.code);
        EXPECT_EQ(Register(kRemote), c.code);
        EXPECT_EQ(log_.lines().back(), (LogLine{4, c.message}));
        EXPECT_EQ(broker_.calls().back(),
                  "AddSubscriber(" + Uuid() + ", cam, " + kRemoteFull + ", 10000, 10)");
    }
}

TEST_F(SubscriberTest, FailedCallReturnsRegisteredAndIdentitiesAreRandom) {
    const std::regex version_4(
        "[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}");
    std::set<std::string> uuids;
    for (const char* operation : {"HasLocalPublisher", "AddSubscriber", "GetHeartbeatPeriod",
                                  "GetShmFilePath", "GetNotificationPort"}) {
        CapturedLog log;
        SubscriberProbe subscriber(log.kvo_logger());
        broker_.ClearCalls();
        broker_.Next(operation, {Failure{"out of order"}});
        EXPECT_EQ(subscriber.RegisterSubscriber(broker_.uri(), "cam", "", 1), 1) << operation;
        EXPECT_TRUE(LoggedException(log, "out of order", "KvoDataSubscriber: RegisterSubscriber()"))
            << operation;
        const std::string uuid = Uuid();  // none where the first call fails
        EXPECT_EQ(std::regex_match(uuid, version_4), broker_.Count("AddSubscriber") == 1) << uuid;
        uuids.insert(uuid);
    }
    EXPECT_EQ(uuids.size(), 5U);
}

TEST_F(SubscriberTest, MissingSharedMemoryFails) {
    broker_.Always("GetShmFilePath", "/dev/shm/nowhere/at-all");
    EXPECT_EQ(Register(), -1);
    EXPECT_EQ(log_.Count("KvoDataSubscriber: KvoMemoryAccessor not initialized"), 1U);
    EXPECT_EQ(log_.Count("KvoDataSubscriber: KvoMemoryAccessor created"), 0U);
    EXPECT_EQ(subscriber_.ReadData(), nullptr);
    EXPECT_TRUE(broker_.WaitForHeartbeats(1));
    EXPECT_EQ(subscriber_.UnregisterSubscriber(), 1);
}

TEST_F(SubscriberTest, LostConnectionStopsItAndAReturnedBrokerRegistersItAgain) {
    ASSERT_TRUE(Registered());
    const std::string uuid = Uuid();
    broker_.Stop();
    ASSERT_TRUE(log_.WaitFor({1, "KvoDataSubscriber: Notification subscription stopped"}));
    EXPECT_EQ(log_.Count("KvoDataSubscriber: Broker connection aborted"), 1U);
    EXPECT_FALSE(subscriber_.heartbeat_running());

    log_.Clear();
    broker_.ClearCalls();
    // The second try fails after the broker has accepted it, so there is a third.
    broker_.Next("AddSubscriber", {Failure{"too early"}, 1, 1});
    broker_.Next("GetNotificationPort", {Failure{"port unknown"}});
    broker_.Start();
    ASSERT_TRUE(log_.WaitFor({2, "KvoDataSubscriber: proceeding"}));
    const std::string add = "AddSubscriber(" + uuid + ", cam, \"\", 10000, 10)";
    EXPECT_EQ(broker_.calls(), Calls({add, add, "GetNotificationPort(cam)", add,
                                      "GetNotificationPort(cam)", "GetHeartbeatPeriod()"}));
    EXPECT_EQ(log_.lines().front(), (LogLine{2, "KvoDataSubscriber: Reregister at Broker..."}));
    EXPECT_TRUE(LoggedException(log_, "too early", "KvoDataSubscriber: Reregister()"));
    EXPECT_TRUE(LoggedException(log_, "port unknown", "KvoDataSubscriber: Reregister()"));
    EXPECT_TRUE(broker_.WaitForHeartbeats(1));
    EXPECT_TRUE(NotifyUntil(broker_, "cam", 2, log_,
                            {2, "KvoDataSubscriber: PUB_UNREG notification received"}));
}

TEST_F(SubscriberTest, ReregistrationEndsAfterTenRejections) {
    ASSERT_TRUE(Registered());
    broker_.Stop();
    ASSERT_TRUE(log_.WaitFor({4, "KvoDataSubscriber: Broker connection aborted"}));
    broker_.ClearCalls();
    broker_.Always("AddSubscriber", -3);
    broker_.Start();
    ASSERT_TRUE(log_.WaitFor({4,
                              "KvoDataSubscriber: Reregistration failed. Please check the "
                              "publisher and restart the subscriber."},
                             1, std::chrono::seconds(30)));
    EXPECT_EQ(log_.Count("KvoDataSubscriber: Error reregistering Subscriber, try again..."), 10U);
    EXPECT_EQ(broker_.Count("AddSubscriber"), 10U);
}

}  // namespace
}  // namespace kvo::test
