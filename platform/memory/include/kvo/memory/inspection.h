#pragma once

#include "kvo/memory/stream_file.h"
#include "kvo/memory_export.h"

#include <cstdint>
#include <string>
#include <vector>

// For tools: stream files inspected without taking part. Nothing is written, no lock is taken;
// the users of the files do not notice.
namespace kvo {

struct ObservedReader {
    ReaderState state;
    ObservedProcess process;
    std::uint64_t lag = 0;  // samples between the newest one and the reader's place
    std::uint64_t copied = 0;
    std::vector<std::uint64_t> pinned;  // sequence numbers; 0: the slot holds none now
};

struct FileReport {
    std::string stream;
    std::string uuid;  // 32 hexadecimal digits
    std::uint64_t epoch = 0;
    std::uint64_t created_ms = 0;  // since the Unix epoch
    bool checksums = false;        // asked for by the stream
    StreamGeometry geometry;
    WriterState writer;
    ObservedProcess writer_process;
    std::vector<ObservedReader> readers;
};

/// Throws std::runtime_error naming file and fault when the header or the control file cannot be
/// used. Processes of the caller's own process count as dead: the kernel shows no process its own
/// locks. Threads: any.
[[nodiscard]] KVO_MEMORY_EXPORT FileReport InspectStreamFile(const std::string& path);

/// What is wrong with a file: one sentence for each rule of docs/stream-file.md that is broken,
/// none for a sound one. With a living writer or reader the rules are checked again for some
/// time, since their steps can be seen half done. Throws as InspectStreamFile.
[[nodiscard]] KVO_MEMORY_EXPORT std::vector<std::string> CheckStreamFile(const std::string& path);

}  // namespace kvo
