#pragma once

#include "kvo/os/file_descriptor.h"
#include "stop_signal.h"

#include <span>
#include <string>
#include <sys/uio.h>

namespace kvo::tools {

/// Where payloads go: bytes straight from where they lie to the descriptor.
/// Threads: one.
class OutputStream {
public:
    /// @param path empty: standard output. Throws CommandFailure.
    explicit OutputStream(const std::string& path);

    /// Writes all parts, which it changes. @return false when nobody reads any more or the user
    /// wants to end. Throws CommandFailure, for instance for a full disk.
    bool Write(std::span<iovec> parts, StopSignal& stop);

    /// poll() reports an error on it once nobody reads any more.
    int fd() const { return fd_; }

private:
    std::string name_;
    os::FileDescriptor file_;
    int fd_;
};

}  // namespace kvo::tools
