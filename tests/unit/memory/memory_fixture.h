#pragma once

#include "captured_log.h"
#include "sample_stream.h"
#include "temp_directory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace kvo::test {

using Bytes = std::vector<unsigned char>;

inline constexpr char kStream[] = "cam/left";
inline constexpr int kPayload = 256;  // bytes

/// The content of sample n: differs in every byte from that of its neighbours.
inline Bytes ContentOf(std::uint64_t n) {
    Bytes bytes(kPayload);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<unsigned char>(n * 7 + i);
    }
    return bytes;
}

inline bool Holds(const DataSample& sample) {
    const Bytes expected = ContentOf(sample.sequence_number());
    return sample.payload_size() == kPayload &&
           std::equal(expected.begin(), expected.end(), sample.payload());
}

/// A directory of its own and one stream in it.
class MemoryTest : public ::testing::Test {
protected:
    static SpareSlots Spare(std::uint64_t bytes = 64 << 10, std::uint32_t pins = 2) {
        return test::Spare(bytes, pins);
    }
    std::unique_ptr<StreamFile> Create(std::int64_t retained, const SpareSlots& spare = Spare(),
                                       std::uint64_t epoch = 1, bool checksum = false) const {
        return CreateStream(path_, kStream, kPayload, retained, spare, epoch, checksum);
    }
    std::unique_ptr<KvoMemoryAccessor> Accessor(int accessor_argument = 1,
                                                unsigned long max_age_ms = 0) {
        return std::make_unique<KvoMemoryAccessor>(path_, kStream, &logger_, max_age_ms,
                                                   accessor_argument);
    }
    std::unique_ptr<KvoMemoryAccessor> Writer() {
        return OpenWriter(path_, kStream, kPayload, &logger_);
    }
    std::unique_ptr<KvoMemoryAccessor> Reader(int accessor_argument = 1,
                                              unsigned long max_age_ms = 0) {
        auto reader = Accessor(accessor_argument, max_age_ms);
        reader->StartReading();
        return reader;
    }
    /// Writes samples first to last with the content that Holds() looks for.
    static void Write(KvoMemoryAccessor& writer, std::uint64_t first, std::uint64_t last) {
        for (std::uint64_t n = first; n <= last; ++n) {
            const Bytes bytes = ContentOf(n);
            writer.WriteData(-1, 5, static_cast<int>(n), bytes.data(), kPayload, nullptr, 0, n);
        }
    }
    static DataSample* Take(KvoMemoryAccessor& reader) { return TakeRetained(reader); }
    /// Takes all there is; the sequence numbers.
    static std::vector<std::uint64_t> TakeAll(KvoMemoryAccessor& reader) {
        std::vector<std::uint64_t> numbers;
        while (const DataSample* sample = Take(reader)) {
            EXPECT_TRUE(Holds(*sample)) << sample->sequence_number();
            numbers.push_back(sample->sequence_number());
        }
        return numbers;
    }
    const TempDirectory place_;
    const std::string directory_ = place_.path();
    const std::string path_ = directory_ + "/stream";
    CapturedLog logger_;
};

}  // namespace kvo::test
