#pragma once

#include "kvo/KvoLogger.h"
#include "kvo/memory/memory_accessor.h"
#include "kvo/memory/stream_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kvo::test {

using Bytes = std::vector<unsigned char>;

inline constexpr char kStream[] = "cam/left";
inline constexpr int kPayload = 256;  // bytes

/// Keeps what is logged.
class RecordingLogger : public KvoLogger {
public:
    int Count(const std::string& part) const {
        const std::lock_guard lock(mutex_);
        return static_cast<int>(std::count_if(
            lines_.begin(), lines_.end(),
            [&](const std::string& line) { return line.find(part) != std::string::npos; }));
    }

protected:
    void Write(int, const std::string& message) override {
        const std::lock_guard lock(mutex_);
        lines_.push_back(message);
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

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
    MemoryTest() {
        std::string pattern = "/dev/shm/kvo-memory-test-XXXXXX";
        directory_ = ::mkdtemp(pattern.data());
        path_ = directory_ + "/stream";
    }
    ~MemoryTest() override {
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }

    static SpareSlots Spare(std::uint64_t bytes = 64 << 10, std::uint32_t pins = 2) {
        SpareSlots spare;
        spare.budget_bytes = bytes;
        spare.pins_per_row = pins;
        return spare;
    }
    std::unique_ptr<StreamFile> Create(std::int64_t retained, SpareSlots spare = Spare(),
                                       std::uint64_t epoch = 1, bool checksum = false) const {
        StreamFile::Creation creation;
        creation.path = path_;
        creation.stream = kStream;
        creation.geometry = PlanGeometry(kPayload, retained, spare);
        creation.epoch = epoch;
        creation.checksum = checksum;
        return StreamFile::Create(creation);
    }
    std::unique_ptr<KvoMemoryAccessor> Accessor(int accessor_argument = 1,
                                                unsigned long max_age_ms = 0) {
        return std::make_unique<KvoMemoryAccessor>(path_, kStream, &logger_, max_age_ms,
                                                   accessor_argument);
    }
    std::unique_ptr<KvoMemoryAccessor> Writer() {
        auto writer = Accessor(10);
        writer->SetSizeConstraints(kPayload, kMaxMetadataBytes);
        return writer;
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
    static DataSample* Take(KvoMemoryAccessor& reader) {
        std::string stream;
        unsigned int samples = 1;
        int tag = 0;
        long sequence = 0;
        unsigned long timestamp = 0;
        DataSample* sample = nullptr;
        reader.get_data_packet(&stream, &samples, &tag, &sequence, &timestamp, &sample);
        return sample;
    }
    /// Takes all there is; the sequence numbers.
    static std::vector<std::uint64_t> TakeAll(KvoMemoryAccessor& reader) {
        std::vector<std::uint64_t> numbers;
        while (const DataSample* sample = Take(reader)) {
            EXPECT_TRUE(Holds(*sample)) << sample->sequence_number();
            numbers.push_back(sample->sequence_number());
        }
        return numbers;
    }
    std::vector<std::string> Files() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(directory_)) {
            names.push_back(entry.path().filename().string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    std::string directory_;
    std::string path_;
    RecordingLogger logger_;
};

}  // namespace kvo::test
