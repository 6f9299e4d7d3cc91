// What brokers of other hosts and later versions may answer: maps with other keys and other types.
#include "gorm/cor/rr/packing.h"
#include "kvo/broker/remote_stream_state.h"
#include "kvo/broker/stream_description.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace kvo {
namespace {

using gorm::cor::rr::RemoteError;
using nlohmann::json;

std::string Packed(const json& value) {
    const std::vector<std::uint8_t> bytes = json::to_msgpack(value);
    return {bytes.begin(), bytes.end()};
}

StreamDescription Unpack(const std::string& bytes) {
    return gorm::cor::rr::UnpackResult<StreamDescription>("DescribeStream", bytes);
}

TEST(RemoteWire, UnknownKeysAreIgnoredAndMissingOnesKeepTheirDefaults) {
    const StreamDescription description =
        Unpack(Packed({{"broker", "id"}, {"epoch", UINT64_MAX}, {"later", {{"x", {1, nullptr}}}}}));
    EXPECT_EQ("id", description.broker);
    EXPECT_EQ(UINT64_MAX, description.epoch);
    EXPECT_FALSE(description.published);
    EXPECT_EQ("", description.topic);
    EXPECT_EQ(0U, Unpack(Packed(json::object())).epoch);

    RemoteStreamState state;
    state.stream = "s";
    state.bytes_per_s = 1.5;
    state.rejected = 3;
    const auto states = gorm::cor::rr::UnpackResult<std::vector<RemoteStreamState>>(
        "ListRemoteStreams", gorm::cor::rr::PackResult(std::vector{state, state}));
    ASSERT_EQ(2U, states.size());
    EXPECT_EQ("s", states[1].stream);
    EXPECT_EQ(1.5, states[1].bytes_per_s);
    EXPECT_EQ(3U, states[1].rejected);
}

TEST(RemoteWire, WrongTypesAndBrokenMapsAreErrors) {
    for (const json& value :
         {json::array({"id", "1"}), json("id"), json(nullptr), json{{"broker", 7}},
          json{{"published", "1"}}, json{{"published", 1}}, json{{"epoch", -1}},
          json{{"max_payload_bytes", 1ULL << 32}}, json{{"retained_samples", 1.5}},
          json{{"topic", {{"a", 1}}}}, json{{"latency_ms", nullptr}}}) {
        EXPECT_THROW(Unpack(Packed(value)), RemoteError) << value;
    }
    EXPECT_THROW(Unpack("\x81\x01\x02"), RemoteError) << "a key that is a number";
    const std::string whole = Packed({{"broker", "id"}, {"epoch", 7}});
    for (std::size_t bytes = 0; bytes < whole.size(); ++bytes) {
        EXPECT_THROW(Unpack(whole.substr(0, bytes)), RemoteError) << bytes;
    }
}

}  // namespace
}  // namespace kvo
