#pragma once

#include "kvo/memory/memory_accessor.h"
#include "kvo/memory/stream_file.h"

#include <cstdint>
#include <memory>
#include <string>

/// A stream file and its users, without a broker.
namespace kvo::test {

inline SpareSlots Spare(std::uint64_t bytes, std::uint32_t pins = SpareSlots{}.pins_per_entry) {
    SpareSlots spare;
    spare.budget_bytes = bytes;
    spare.pins_per_entry = pins;
    return spare;
}

inline std::unique_ptr<StreamFile> CreateStream(const std::string& path, const std::string& stream,
                                                int payload_bytes, std::int64_t retained,
                                                const SpareSlots& spare = {},
                                                std::uint64_t epoch = 1, bool checksum = false) {
    StreamFile::Creation creation;
    creation.path = path;
    creation.stream = stream;
    creation.geometry = PlanGeometry(payload_bytes, retained, spare);
    creation.epoch = epoch;
    creation.checksum = checksum;
    return StreamFile::Create(creation);
}

inline std::unique_ptr<KvoMemoryAccessor> OpenWriter(const std::string& path,
                                                     const std::string& stream, int payload_bytes,
                                                     KvoLogger* logger = nullptr) {
    auto writer = std::make_unique<KvoMemoryAccessor>(path, stream, logger, 0, 10);
    writer->SetSizeConstraints(payload_bytes, kMaxMetadataBytes);
    return writer;
}

/// The next sample; null: there is none.
inline DataSample* Take(KvoMemoryAccessor& reader) {
    DataSample* sample = nullptr;
    reader.get_data_packet(nullptr, nullptr, nullptr, nullptr, nullptr, &sample);
    return sample;
}

/// As Take, but what is no longer among the retained ones is lost.
inline DataSample* TakeRetained(KvoMemoryAccessor& reader) {
    unsigned int samples = 1;
    DataSample* sample = nullptr;
    reader.get_data_packet(nullptr, &samples, nullptr, nullptr, nullptr, &sample);
    return sample;
}

}  // namespace kvo::test
