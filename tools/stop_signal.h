#pragma once

#include "kvo/os/file_descriptor.h"

#include <chrono>
#include <optional>
#include <poll.h>
#include <span>

namespace kvo::tools {

/// Blocks SIGINT and SIGTERM in this thread and all that it starts. Once, first of all.
void BlockStopSignals();

/// Whether the user wants the command to end (SIGINT or SIGTERM), as something to wait for.
/// Threads: one.
class StopSignal {
public:
    using Deadline = std::optional<std::chrono::steady_clock::time_point>;

    StopSignal();

    bool requested();

    /// Waits until one of the watched descriptors is ready or broken, the deadline has come
    /// (nullopt: there is none) or the user wants to end. Descriptors of -1 are passed over.
    /// @param watched at most two; their `revents` are filled in.
    /// @return whether a watched one is; false for the others and when the user wants to end.
    bool Wait(std::span<pollfd> watched, Deadline deadline);

    /// The same without anything to watch.
    void WaitUntil(Deadline deadline) { Wait({}, deadline); }

private:
    os::FileDescriptor signals_;
    bool requested_ = false;
};

}  // namespace kvo::tools
