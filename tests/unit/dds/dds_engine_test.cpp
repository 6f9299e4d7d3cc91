// The module as the broker loads it, with both ends in this process.
#include "remote/federation_engine_loader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace kvo::brokerd {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr std::chrono::seconds kDeadline{20};
constexpr std::uint32_t kDomain = 89;  // no other program's
constexpr const char* kOwn = "kvo/test/own";

class DdsEngineTest : public ::testing::Test {
protected:
    static std::unique_ptr<FederationEngine> Load() {
        FederationOptions options;
        options.module = KVO_FEDERATION_MODULE;
        options.domain = kDomain;
        options.interfaces = {"lo"};
        return LoadFederationEngine(options);
    }
    static RemoteTopic Topic(const std::string& name, std::uint32_t history = 4,
                             std::uint32_t bytes = 64) {
        RemoteTopic topic;
        topic.name = "kvo/test/" + name;
        topic.history = history;
        topic.max_payload_bytes = bytes;
        topic.deadline_s = 10;
        return topic;
    }
    static bool Write(RemoteWriter& writer, std::uint64_t number, const std::string& payload) {
        SampleView sample;
        sample.source_epoch = 3;
        sample.source_sequence = number;
        sample.timestamp_ms = 4;
        sample.sample_tag = 5;
        sample.topic_id = -6;
        sample.metadata = reinterpret_cast<const unsigned char*>("metadata");
        sample.metadata_bytes = 7;
        sample.payload = reinterpret_cast<const unsigned char*>(payload.data());
        sample.payload_bytes = static_cast<std::uint32_t>(payload.size());
        return writer.Write(sample);
    }
    /// Takes until so many have come; their numbers, with payloads compared.
    static std::vector<std::uint64_t> Take(RemoteReader& reader, std::size_t count,
                                           const std::string& payload) {
        std::vector<std::uint64_t> numbers;
        const auto end = std::chrono::steady_clock::now() + kDeadline;
        while (numbers.size() < count && std::chrono::steady_clock::now() < end) {
            reader.Take(std::chrono::milliseconds(100), [&](const SampleView& sample) {
                numbers.push_back(sample.source_sequence);
                EXPECT_EQ(3U, sample.source_epoch);
                EXPECT_EQ(4U, sample.timestamp_ms);
                EXPECT_EQ(5, sample.sample_tag);
                EXPECT_EQ(-6, sample.topic_id);
                EXPECT_EQ("metadat",
                          std::string(sample.metadata, sample.metadata + sample.metadata_bytes));
                EXPECT_TRUE(payload ==
                            std::string(sample.payload, sample.payload + sample.payload_bytes));
            });
        }
        return numbers;
    }
    template <class Condition>
    static bool Becomes(Condition condition) {
        const auto end = std::chrono::steady_clock::now() + kDeadline;
        while (!condition() && std::chrono::steady_clock::now() < end) {
            std::this_thread::yield();
        }
        return condition();
    }
};

TEST_F(DdsEngineTest, WhoComesLateGetsTheHistoryAndThenEverything) {
    const auto engine = Load();
    const auto writer = engine->MakeWriter(Topic("late"));
    for (std::uint64_t number = 1; number <= 10; ++number) {
        ASSERT_TRUE(Write(*writer, number, "payload"));
    }
    const auto reader = engine->MakeReader(Topic("late"), kOwn);
    EXPECT_THAT(Take(*reader, 4, "payload"), ElementsAre(7, 8, 9, 10));
    ASSERT_TRUE(Write(*writer, 11, "payload"));
    EXPECT_THAT(Take(*reader, 1, "payload"), ElementsAre(11));
}

TEST_F(DdsEngineTest, ReadersSeeWritersComeAndGo) {
    const auto engine = Load();
    const auto reader = engine->MakeReader(Topic("link"), kOwn);
    EXPECT_FALSE(reader->has_writer());
    auto writer = engine->MakeWriter(Topic("link"));
    EXPECT_TRUE(Becomes([&] { return reader->has_writer(); }));
    writer.reset();
    EXPECT_TRUE(Becomes([&] { return !reader->has_writer(); }));
    std::thread waker([&] { reader->Wake(); });
    reader->Take(kDeadline, [](const SampleView&) {});
    waker.join();
}

TEST_F(DdsEngineTest, WhatIsSentToAReaderAloneComesAsWell) {
    const auto engine = Load();
    RemoteTopic own = Topic("");
    own.name = kOwn;
    const auto reader = engine->MakeReader(Topic("all"), kOwn);
    auto to_all = engine->MakeWriter(Topic("all"));
    const auto to_one = engine->MakeWriter(own);
    ASSERT_TRUE(Write(*to_all, 1, "payload"));
    EXPECT_THAT(Take(*reader, 1, "payload"), ElementsAre(1));
    ASSERT_TRUE(Write(*to_one, 2, "payload"));
    EXPECT_THAT(Take(*reader, 1, "payload"), ElementsAre(2));
    to_all.reset();
    ASSERT_TRUE(Write(*to_one, 3, "payload"));
    EXPECT_THAT(Take(*reader, 1, "payload"), ElementsAre(3));
    EXPECT_TRUE(reader->has_writer());
}

TEST_F(DdsEngineTest, SamplesOfManyMegabytesPassThrough) {
    const auto engine = Load();
    const std::string payload(20U << 20, 'x');
    const auto topic = Topic("large", 2, static_cast<std::uint32_t>(payload.size()));
    const auto reader = engine->MakeReader(topic, kOwn);
    const auto writer = engine->MakeWriter(topic);
    ASSERT_TRUE(Becomes([&] { return reader->has_writer(); }));
    ASSERT_TRUE(Write(*writer, 1, payload));
    EXPECT_THAT(Take(*reader, 1, payload), ElementsAre(1));
}

TEST_F(DdsEngineTest, WhatIsNoModuleIsRefusedByName) {
    FederationOptions options;
    options.module = "/nowhere/libkvo-federation-dds.so";
    const auto text = [&options] {
        try {
            static_cast<void>(LoadFederationEngine(options));
        } catch (const std::runtime_error& error) {
            return std::string(error.what());
        }
        return std::string();
    };
    EXPECT_THAT(text(), HasSubstr("/nowhere/libkvo-federation-dds.so"));
    options.module = "libm.so.6";
    EXPECT_THAT(text(), HasSubstr("libm.so.6 is no engine"));
    options.module = KVO_FEDERATION_MODULE;
    options.domain = kDomain + 1;
    options.interfaces = {"no-such-interface"};
    EXPECT_THAT(text(), HasSubstr("joining the DDS domain failed"));
}

}  // namespace
}  // namespace kvo::brokerd
