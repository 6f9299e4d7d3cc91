#include "probes.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <new>

namespace {

thread_local bool counting = false;
thread_local int allocations = 0;

}  // namespace

// Every allocation of the process goes through here; counted are those of a thread that asks.
// Not inlined, since half of a pair in a caller looks like a mismatch to the compiler.
[[gnu::noinline]] void* operator new(std::size_t size) {
    if (counting) {
        ++allocations;
    }
    if (void* const memory = std::malloc(size == 0 ? 1 : size)) {
        return memory;
    }
    throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return std::malloc(size == 0 ? 1 : size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    std::free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

namespace kvo::test {
namespace {

// A client that answers nothing and costs nothing, in the place of one that sends messages.
class IdleClient final : public DataBrokerRegistrationSync {
public:
    IdleClient(int& reports, int& notes) : reports_(reports), notes_(notes) {}
    ~IdleClient() override { AwaitUsers(); }
    boost::future<void> Connect() override { return boost::make_ready_future(); }
    gorm::cor::rr::ListenerRegistration RegisterConnectionListener(
        std::function<void(bool)>) override {
        return {};
    }
    void SendHeartbeat(const std::string&) override {}
    std::int32_t AddPublisher(const std::string&, std::int32_t, std::int32_t, std::int32_t,
                              std::int32_t, bool, const std::string&) override {
        return 1;
    }
    std::int32_t RemovePublisher(const std::string&) override { return 1; }
    void NotifyNewData(const std::string& stream) override { notes_ += stream == "cam" ? 1 : 0; }
    std::int32_t AddSubscriber(const std::string&, const std::string&, const std::string&,
                               std::int32_t, std::int32_t) override {
        return 1;
    }
    std::int32_t RemoveSubscriber(const std::string&, const std::string&) override { return 1; }
    std::string GetPublisherKey(const std::string&) override { return {}; }
    std::int32_t GetNotificationPort(const std::string&) override { return 0; }
    std::vector<std::string> GetStreamStatistics(const std::string&) override { return {}; }
    std::int32_t GetHeartbeatPeriod() override { return 0; }
    std::int32_t GetHeartbeatTimeout() override { return 0; }
    std::string GetShmFilePath(const std::string&) override { return {}; }
    std::string GetExistingShmPath(const std::string&) override { return {}; }
    bool IsStreamIdFree(const std::string&) override { return true; }
    bool HasLocalPublisher(const std::string&) override { return true; }
    bool HasRemotePublisher(const std::string&, const std::string&) override { return true; }
    void ReportDataWritten(const std::string& stream, std::int32_t payload_size,
                           std::int64_t written_ms) override {
        reports_ += stream == "cam" && payload_size == 64 && written_ms > 0 ? 1 : 0;
    }
    std::int32_t GetMaxBufferSize(std::int32_t) override { return 0; }
    std::vector<std::string> ListRegisteredStreams() override { return {}; }
    std::vector<std::string> ListConnectedBrokers() override { return {}; }
    std::vector<std::string> GetCapabilities() override { return {}; }
    std::string GetRefusalReason(const std::string&) override { return {}; }
    std::vector<std::string> DescribeStream(const std::string&, const std::string&) override {
        return {};
    }
    std::vector<std::string> ListRemoteStreams() override { return {}; }

private:
    int& reports_;
    int& notes_;
};

TEST(WritePath, AllocatesNothingAndLogsNothing) {
    constexpr int kWrites = 2000;  // many times around the slots
    CapturedLog log;
    ScriptedBroker broker;
    broker.Always("GetHeartbeatPeriod", 0);
    int reports = 0;
    int notes = 0;
    PublisherProbe publisher(log.kvo_logger());
    publisher.SetBufferSize(64, 4);
    for (const bool checksum : {false, true}) {
        broker.CreateStream("cam");
        ASSERT_EQ(publisher.RegisterPublisher(broker.uri(), "cam", checksum), 1);
        const std::vector<unsigned char> payload(64, 7);
        const std::vector<unsigned char> metadata(100, 8);
        if (broker.local) {
            publisher.AwaitCapabilities(broker);
            publisher.PublishData();  // finds the topic
        } else {
            publisher.transfer().broker_client.Replace(
                std::make_unique<IdleClient>(reports, notes));
        }
        broker.ClearCalls();
        log.Clear();
        reports = notes = 0;
        allocations = 0;
        counting = true;
        for (int tag = 0; tag < kWrites; ++tag) {
            publisher.WriteData(tag, payload, metadata);
            publisher.PublishData();
        }
        counting = false;
        EXPECT_EQ(allocations, 0);
        EXPECT_EQ(reports, broker.local ? 0 : kWrites);
        EXPECT_EQ(notes, broker.local ? 0 : kWrites);
        EXPECT_EQ(log.lines(), Lines());
        publisher.UnregisterPublisher();
        EXPECT_EQ(broker.calls(), broker.local ? Calls({"RemovePublisher(cam)"}) : Calls());
    }
    counting = true;
    const auto proof = std::make_unique<int>(1);  // that allocations are seen at all
    counting = false;
    EXPECT_EQ(allocations, 1);
}

}  // namespace
}  // namespace kvo::test
