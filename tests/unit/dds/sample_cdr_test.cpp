#include "sample_cdr.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace kvo::brokerd::dds {
namespace {

/// A sample as the engine serialises it, with 5 bytes of metadata.
std::vector<unsigned char> Serialised() {
    std::vector<unsigned char> bytes{0, 1, 0, 0};
    const auto add = [&bytes](const auto& value) {
        const auto* const begin = reinterpret_cast<const unsigned char*>(&value);
        bytes.insert(bytes.end(), begin, begin + sizeof value);
    };
    for (const std::uint64_t value : {7, 8, 9}) {
        add(value);
    }
    add(std::int32_t{-1});
    add(std::int32_t{2});
    add(std::uint32_t{5});
    bytes.insert(bytes.end(), {'m', 'e', 't', 'a', '!', 0, 0, 0});
    add(std::uint32_t{3});
    bytes.insert(bytes.end(), {'p', 'a', 'y'});
    return bytes;
}

TEST(SampleCdr, NothingIsFoundBeyondTheEnd) {
    const auto bytes = Serialised();
    SampleView sample;
    ASSERT_TRUE(ParseSample(bytes.data(), bytes.size(), sample));
    EXPECT_EQ("meta!", std::string(sample.metadata, sample.metadata + sample.metadata_bytes));
    EXPECT_EQ("pay", std::string(sample.payload, sample.payload + sample.payload_bytes));
    for (std::size_t size = 0; size < bytes.size(); ++size) {
        const std::vector<unsigned char> shorter(bytes.begin(),
                                                 bytes.begin() + static_cast<std::ptrdiff_t>(size));
        EXPECT_FALSE(ParseSample(shorter.data(), shorter.size(), sample)) << size;
    }
    auto too_long = bytes;
    const std::uint32_t most = 0xffffffff;
    std::memcpy(too_long.data() + too_long.size() - 3 - sizeof most, &most, sizeof most);
    EXPECT_FALSE(ParseSample(too_long.data(), too_long.size(), sample));
}

}  // namespace
}  // namespace kvo::brokerd::dds
