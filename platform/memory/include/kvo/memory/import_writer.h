#pragma once

#include "kvo/memory_export.h"

#include <cstdint>
#include <memory>
#include <string>

namespace kvo {

/// A sample as its publisher on another host wrote it.
struct ImportedSample {
    const unsigned char* payload = nullptr;
    std::uint32_t payload_bytes = 0;
    const unsigned char* metadata = nullptr;
    std::uint32_t metadata_bytes = 0;
    std::int32_t sample_tag = 0;
    std::int32_t topic_id = 0;
    std::uint64_t timestamp_ms = 0;     // since the Unix epoch
    std::uint64_t sequence_number = 0;  // on its host; at least 1
};

/// The one writer of a stream file whose samples come from another host: readers see the numbers
/// that the samples have there, also when some were lost on the way.
/// Threads: one at a time.
class KVO_MEMORY_EXPORT ImportWriter {
public:
    /// Takes the writer's role of the file. Throws std::runtime_error naming file and fault, and
    /// std::system_error when this process can not join the directory.
    explicit ImportWriter(const std::string& path);
    ImportWriter(const ImportWriter&) = delete;
    ImportWriter& operator=(const ImportWriter&) = delete;
    ~ImportWriter();

    /// Copies the sample into the next free slot and makes it the newest. @return false: it is
    /// not there, since it does not fit its slot, the file is retired, or hostile readers hold
    /// every slot. Never blocks.
    bool Write(const ImportedSample& sample);

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace kvo
