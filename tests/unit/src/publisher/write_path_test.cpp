#include "probes.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <new>

namespace {

thread_local bool counting = false;
thread_local int allocations = 0;

}  // namespace

// Counts the allocations of a thread that sets `counting`. Not inlined, since the compiler takes
// half of a pair in a caller for a mismatch.
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

TEST(WritePath, AllocatesNothingAndLogsNothing) {
    constexpr int kWrites = 2000;  // many times around the slots
    CapturedLog log;
    // Without local topics every sample is a message, which is allocated.
    ::setenv("KVO_TEST_LOCAL_TOPICS", "true", 1);
    ScriptedBroker broker;
    ::unsetenv("KVO_TEST_LOCAL_TOPICS");
    ASSERT_TRUE(broker.local);
    broker.Always("GetHeartbeatPeriod", 0);
    PublisherProbe publisher(log.kvo_logger());
    publisher.SetBufferSize(64, 4);
    for (const bool checksum : {false, true}) {
        broker.CreateStream("cam");
        ASSERT_EQ(publisher.RegisterPublisher(broker.uri(), "cam", checksum), 1);
        const std::vector<unsigned char> payload(64, 7);
        const std::vector<unsigned char> metadata(100, 8);
        publisher.AwaitCapabilities(broker);
        publisher.PublishData();  // finds the topic
        broker.ClearCalls();
        log.Clear();
        allocations = 0;
        counting = true;
        for (int tag = 0; tag < kWrites; ++tag) {
            publisher.WriteData(tag, payload, metadata);
            publisher.PublishData();
        }
        counting = false;
        EXPECT_EQ(allocations, 0);
        EXPECT_EQ(log.lines(), Lines());
        publisher.UnregisterPublisher();
        EXPECT_EQ(broker.calls(), Calls({"RemovePublisher(cam)"}));
    }
    counting = true;
    const auto proof = std::make_unique<int>(1);  // an allocation is counted
    counting = false;
    EXPECT_EQ(allocations, 1);
}

}  // namespace
}  // namespace kvo::test
