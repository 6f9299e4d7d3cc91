#include "probes.h"

#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>

namespace kvo::test {
namespace {

using Failure = ScriptedBroker::Failure;

const std::string kAdd = "AddPublisher(cam, 10000, 10, 64, 4, false, \"\")";

class PublisherTest : public testing::Test {
protected:
    PublisherTest() {
        file_ = &broker_.CreateStream("cam");
        broker_.Always("GetPublisherKey", "key-1");
        publisher_.SetBufferSize(64, 4);
        log_.Clear();
    }
    int Register() { return publisher_.RegisterPublisher(broker_.uri(), "cam", false); }
    // Lines after those of the connection.
    Lines AfterConnection() const {
        Lines lines = log_.lines();
        const auto connected =
            std::find(lines.begin(), lines.end(),
                      LogLine{1, "KvoDataTransferLib: Broker connection established"});
        lines.erase(lines.begin(), connected == lines.end() ? connected : connected + 1);
        return lines;
    }

    CapturedLog log_;
    ScriptedBroker broker_;
    const StreamFile* file_ = nullptr;
    PublisherProbe publisher_{log_.kvo_logger()};
};

TEST_F(PublisherTest, RegistersWritesPublishesAndUnregisters) {
    publisher_.SetQoS(-1, 0);
    ASSERT_EQ(publisher_.RegisterPublisher(broker_.uri(), "cam", true), 1);
    EXPECT_EQ(broker_.calls(),
              Calls({"GetHeartbeatTimeout()", "IsStreamIdFree(cam)",
                     "AddPublisher(cam, -1, 0, 64, 4, true, \"\")", "GetHeartbeatPeriod()",
                     "GetPublisherKey(cam)", "GetShmFilePath(cam)"}));
    ASSERT_TRUE(log_.WaitFor({1, "KvoDataTransferLib: HeartbeatThread started"}));
    Lines lines = log_.lines();
    std::erase(lines, LogLine{1, "KvoDataTransferLib: HeartbeatThread started"});
    EXPECT_EQ(lines, Lines({{2, "KvoDataPublisher: Broker URI: " + broker_.full_uri()},
                            {1, "KvoDataPublisher parameters:"},
                            {1, "Data_stream_identifier: cam"},
                            {1, "Latency: -1 [ms]"},
                            {1, "Deadline: 0 [s]"},
                            {1, "Max_data_sample_size: 64"},
                            {1, "Number_of_samples: 4"},
                            {1, "KvoDataTransferLib: Broker connection established"},
                            {1, "KvoDataPublisher: KvoMemoryAccessor created"}}));
    ASSERT_TRUE(broker_.WaitForHeartbeats(1));
    EXPECT_EQ(broker_.heartbeats().front().id, "cam");

    publisher_.AwaitCapabilities(broker_);
    CapturedLog subscriber_log;
    SubscriberProbe subscriber(subscriber_log.kvo_logger());
    if (broker_.local) {
        ASSERT_EQ(subscriber.RegisterSubscriber(broker_.uri(), "cam", "", 1), 1);
    }
    broker_.ClearCalls();
    publisher_.WriteData(3, {1, 2, 3}, {4});
    publisher_.WriteData(4, {}, {});
    EXPECT_THROW(publisher_.WriteData(5, std::vector<unsigned char>(65), {}),
                 std::invalid_argument);
    publisher_.PublishData();
    broker_.Always("RemovePublisher", 5);
    EXPECT_EQ(publisher_.UnregisterPublisher(), 5);
    const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::system_clock::now().time_since_epoch());
    Calls calls = broker_.calls();
    if (broker_.local) {  // told without the broker, and counted where it looks
        EXPECT_TRUE(
            subscriber_log.WaitFor({1, "KvoDataSubscriber: NEW_DATA notification received"}));
        const WriterState state = file_->writer_state();
        EXPECT_EQ(state.written, 2U);
        EXPECT_EQ(state.payload_bytes, 3U);
        EXPECT_NEAR(double(state.last_write_ms), double(now.count()), 60'000);
    } else {
        ASSERT_EQ(calls.size(), 4U);
        const std::string reported = "ReportDataWritten(cam, 3, ";
        ASSERT_EQ(calls[0].rfind(reported, 0), 0U);
        EXPECT_NEAR(std::stod(calls[0].substr(reported.size())), double(now.count()), 60'000);
        EXPECT_EQ(calls[1].rfind("ReportDataWritten(cam, 0, ", 0), 0U);
        EXPECT_EQ(calls[2], "NotifyNewData(cam)");
        calls.erase(calls.begin(), calls.begin() + 3);
    }
    EXPECT_EQ(calls, Calls({"RemovePublisher(cam)"}));

    EXPECT_FALSE(publisher_.heartbeat_running());
    broker_.ClearCalls();
    EXPECT_EQ(publisher_.UnregisterPublisher(), -1);
    EXPECT_EQ(broker_.calls(), Calls());
}

TEST_F(PublisherTest, ArgumentsAreCheckedBeforeTheBrokerIsCalled) {
    for (const auto& [size, samples] : {std::pair{0, 0}, {0, 4}, {64, 0}, {-1, 4}}) {
        publisher_.SetBufferSize(size, samples);
        log_.Clear();
        EXPECT_EQ(Register(), -1);
        EXPECT_EQ(log_.lines(),
                  Lines({{4, "KvoDataPublisher: Error: Buffer size not set correctly"}}));
    }
    publisher_.SetBufferSize(64, 4);
    log_.Clear();
    EXPECT_EQ(publisher_.RegisterPublisher(broker_.uri() + "/broker/Broker2", "cam", false), -1);
    EXPECT_EQ(publisher_.RegisterPublisher("", "cam", false), -1);
    EXPECT_EQ(log_.lines(), Lines({{4, "Invalid URI!"}}));
    publisher_.WriteData(1, {1}, {});  // not connected: nothing happens
    publisher_.PublishData();
    EXPECT_EQ(publisher_.UnregisterPublisher(), -1);
    EXPECT_EQ(broker_.calls(), Calls());
}

TEST_F(PublisherTest, RejectionIsLoggedAndReturned) {
    const LogLine error{4, "KvoDataPublisher: Error registering Publisher"};
    const struct {
        int code;
        Lines lines;
        Calls calls;
    } cases[] = {
        {-2,
         {error,
          {4, "KvoDataPublisher: Not enough memory available!"},
          {4, "KvoDataPublisher: Max possible buffer size: 1234"}},
         {"GetMaxBufferSize(64)"}},
        {-3, {error}, {}},
        {-4,
         {error,
          {4,
           "KvoDataPublisher: Shared Memory file already exists. Shared Memory file path: "
           "/dev/shm/cam"}},
         {"GetExistingShmPath(cam)"}},
        {0, {error}, {}},
        {-10, {error}, {}},
        {42, {error}, {}},
    };
    broker_.Always("GetMaxBufferSize", 1234);
    broker_.Always("GetExistingShmPath", "/dev/shm/cam");
    for (const auto& c : cases) {
        log_.Clear();
        broker_.ClearCalls();
        broker_.Always("AddPublisher", c.code);
        EXPECT_EQ(Register(), c.code);
        EXPECT_EQ(AfterConnection(), c.lines) << c.code;
        Calls calls{"GetHeartbeatTimeout()", "IsStreamIdFree(cam)", kAdd};
        calls.insert(calls.end(), c.calls.begin(), c.calls.end());
        EXPECT_EQ(broker_.calls(), calls) << c.code;
        EXPECT_EQ(publisher_.UnregisterPublisher(), -1);
    }
    log_.Clear();
    broker_.ClearCalls();
    broker_.Always("IsStreamIdFree", false);
    EXPECT_EQ(Register(), -1);
    EXPECT_EQ(AfterConnection(),
              Lines({{4, "KvoDataPublisher: Data stream identifier already in use!"}}));
    EXPECT_EQ(broker_.calls(), Calls({"GetHeartbeatTimeout()", "IsStreamIdFree(cam)"}));
}

TEST_F(PublisherTest, FailedCallEndsTheRegistrationWithItsResult) {
    const struct {
        const char* operation;
        int result;
        const char* where;
        int code = 1;
    } cases[] = {
        {"IsStreamIdFree", 1, "KvoDataPublisher: RegisterPublisher()"},
        {"AddPublisher", -1, "KvoDataPublisher: Register()"},
        {"GetHeartbeatPeriod", -1, "KvoDataPublisher: Register()"},
        {"GetPublisherKey", -1, "KvoDataPublisher: Register()"},
        {"GetShmFilePath", -1, "KvoDataPublisher: Register()"},
        {"GetMaxBufferSize", -1, "KvoDataPublisher: Register()", -2},
        {"GetExistingShmPath", -1, "KvoDataPublisher: Register()", -4},
    };
    for (const auto& c : cases) {
        CapturedLog log;
        PublisherProbe publisher(log.kvo_logger());
        publisher.SetBufferSize(64, 4);
        if (c.code != 1) {
            broker_.Next("AddPublisher", {c.code});
        }
        broker_.Next(c.operation, {Failure{"out of order"}});
        EXPECT_EQ(publisher.RegisterPublisher(broker_.uri(), "cam", false), c.result)
            << c.operation;
        EXPECT_TRUE(LoggedException(log, "out of order", c.where)) << c.operation;
    }
}

TEST_F(PublisherTest, MissingSharedMemoryFailsButStaysRegistered) {
    broker_.Always("GetShmFilePath", "/dev/shm/nowhere/at-all");
    EXPECT_EQ(Register(), -1);
    EXPECT_EQ(log_.Count("KvoDataPublisher: KvoMemoryAccessor not initialized"), 1U);
    EXPECT_EQ(log_.Count("KvoDataPublisher: KvoMemoryAccessor created"), 1U);
    EXPECT_TRUE(broker_.WaitForHeartbeats(1));
    EXPECT_THROW(publisher_.WriteData(1, {1}, {}), std::logic_error);
    EXPECT_EQ(publisher_.UnregisterPublisher(), 1);
}

TEST_F(PublisherTest, FailedPublishingAndUnregisteringIsLogged) {
    ASSERT_EQ(Register(), 1);
    ASSERT_TRUE(broker_.WaitForHeartbeats(1));
    broker_.Next("RemovePublisher", {Failure{"busy"}});
    EXPECT_EQ(publisher_.UnregisterPublisher(), -1);
    EXPECT_TRUE(LoggedException(log_, "busy", "KvoDataPublisher: UnregisterPublisher()"));
    EXPECT_FALSE(publisher_.heartbeat_running());  // all the same
    const auto client = publisher_.GetBrokerClient();
    publisher_.PublishData();
    EXPECT_TRUE(LoggedException(log_, "no broker client", "KvoDataPublisher: PublishData()"));
    EXPECT_EQ(publisher_.UnregisterPublisher(), -1);  // still registered, so it is tried again
    EXPECT_EQ(log_.Count("thrown in KvoDataPublisher: UnregisterPublisher()"), 2U);
}

TEST_F(PublisherTest, LostConnectionStopsItAndAReturnedBrokerRegistersItAgain) {
    ASSERT_EQ(Register(), 1);
    ASSERT_TRUE(broker_.WaitForHeartbeats(1));
    broker_.Stop();
    ASSERT_TRUE(log_.WaitFor({4, "KvoDataPublisher: Broker connection aborted"}));
    EXPECT_FALSE(publisher_.get_connected_to_broker());
    broker_.ClearCalls();
    publisher_.WriteData(1, {1}, {});  // discarded
    publisher_.PublishData();

    log_.Clear();
    broker_.Start();
    ASSERT_TRUE(log_.WaitFor({2, "KvoDataPublisher: proceeding"}));
    EXPECT_TRUE(publisher_.get_connected_to_broker());
    EXPECT_EQ(log_.lines().front(), (LogLine{2, "KvoDataPublisher: Reregister at Broker..."}));
    EXPECT_EQ(broker_.calls(),
              Calls({"AddPublisher(cam, 10000, 10, 64, 4, false, key-1)", "GetHeartbeatPeriod()"}));
    EXPECT_TRUE(broker_.WaitForHeartbeats(1));
    publisher_.WriteData(2, {2}, {});
    EXPECT_TRUE(broker_.local || broker_.WaitForCall("ReportDataWritten(cam, 1, "));
    EXPECT_EQ(file_->writer_state().written, 1U);

    const struct {
        ScriptedBroker::Answer answer;
        LogLine last;
    } cases[] = {
        {-3, {4, "KvoDataPublisher: Error reregistering Publisher"}},
        {Failure{"not now"}, {4, "thrown in KvoDataPublisher: Reregister()"}},
    };
    for (const auto& c : cases) {  // one try for each return
        broker_.Stop();
        ASSERT_TRUE(log_.WaitFor({4, "KvoDataPublisher: Broker connection aborted"}));
        log_.Clear();
        broker_.ClearCalls();
        broker_.Always("AddPublisher", c.answer);
        broker_.Start();
        ASSERT_TRUE(log_.WaitFor(c.last));
        EXPECT_EQ(broker_.calls().size(), 1U);
    }
}

}  // namespace
}  // namespace kvo::test
