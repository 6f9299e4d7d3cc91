#pragma once

#include "kvo/memory/process_lock.h"
#include "kvo/memory/stream_geometry.h"
#include "kvo/memory_export.h"
#include "kvo/os/file_access.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

// For the broker, which creates, retires and removes stream files, and for tools that
// inspect them. Applications use KvoMemoryAccessor.
namespace kvo {

struct WriterState {
    bool retired = false;
    // Number 0: no writer has the role. Of the nonce the low 32 bits, for ProcessLock::Resolve.
    ProcessTag writer;
    std::uint64_t newest_sequence = 0;
    std::uint64_t written = 0;
    std::uint64_t payload_bytes = 0;
    std::uint64_t dropped = 0;
    std::uint64_t discarded = 0;
    std::uint64_t last_write_ms = 0;
};

struct ReaderState {
    std::uint32_t entry = 0;  // its number in the table
    ProcessTag reader;
    std::uint32_t pins = 0;
    std::uint64_t next_sequence = 0;
    std::uint64_t read = 0;
    std::uint64_t lost = 0;
    std::uint64_t superseded = 0;
    std::uint64_t expired = 0;
    std::uint64_t checksum_failures = 0;
};

class Segment;

/// The broker's hold on one segment: data file and control file, mapped for writing.
/// Threads: one at a time.
class KVO_MEMORY_EXPORT StreamFile {
public:
    struct Creation {
        std::string path;    // of the data file; a file that is there is replaced by rename
        std::string stream;  // 1 to 255 bytes
        StreamGeometry geometry;
        std::uint64_t epoch = 0;
        KeyDigest key_digest{};
        bool checksum = false;
        os::FileAccess access;
    };
    /// Makes both files with their whole size reserved and puts them in place; ready last. Throws
    /// std::system_error (ENOSPC: no room) and then leaves nothing behind and the old file alone.
    [[nodiscard]] static std::unique_ptr<StreamFile> Create(const Creation& creation);

    /// Opens an existing pair and checks it; throws std::runtime_error naming file and fault.
    [[nodiscard]] static std::unique_ptr<StreamFile> Open(const std::string& path);

    StreamFile(const StreamFile&) = delete;
    StreamFile& operator=(const StreamFile&) = delete;
    ~StreamFile();

    const std::string& path() const { return path_; }  // of the data file
    std::string control_path() const;
    const std::string& stream() const;
    const Uuid& uuid() const;
    std::uint64_t epoch() const;
    const StreamGeometry& geometry() const;
    const KeyDigest& key_digest() const;
    bool asks_for_checksums() const;

    WriterState writer_state() const;
    std::vector<ReaderState> readers() const;

    /// No sample is written from now on; the writer learns it at its next write.
    void Retire();
    /// Frees the entries of dead readers; @return how many.
    int ReapDeadReaders(ProcessLock& lock);
    /// Whether the writer's or a reader's process lives.
    [[nodiscard]] bool InUse(const ProcessLock& lock) const;
    /// Unlinks the control file, and the data file if the path still names this segment.
    void Remove();

private:
    StreamFile(std::string path, std::shared_ptr<Segment> segment);

    const std::string path_;
    const std::shared_ptr<Segment> segment_;
};

}  // namespace kvo
