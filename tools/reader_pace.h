#pragma once

#include "kvo/memory/stream_file.h"
#include "stop_signal.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace kvo::tools {

/// Tells a publisher how far the readers of its stream are, from the stream file itself.
/// Threads: one.
class ReaderPace {
public:
    explicit ReaderPace(std::string stream_file_path);

    /// Each waits; false: the user wants to end.
    bool AwaitReaders(std::size_t count, StopSignal& stop);
    /// Until no reader has more than so many samples left to read.
    bool AwaitLag(std::uint64_t most_unread, StopSignal& stop);

private:
    /// The segment at the path now: a successor takes its place when the broker gives one.
    StreamFile& Current();
    std::uint64_t LargestLag();

    const std::string path_;
    std::unique_ptr<StreamFile> file_;
};

}  // namespace kvo::tools
