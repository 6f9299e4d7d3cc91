#include "output_stream.h"

#include "exit_codes.h"
#include "kvo/os/file_descriptor.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kvo::tools {
namespace {

// A pipe or terminal that nobody empties must not keep the command from ending, so it is opened
// again without blocking: setting that on the inherited descriptor would set it for the shell too.
// Fails (no /proc, no reader left): the inherited descriptor is used as it is.
os::FileDescriptor ReopenStandardOutput() {
    struct stat status {};
    if (::fstat(STDOUT_FILENO, &status) != 0 ||
        !(S_ISFIFO(status.st_mode) || ::isatty(STDOUT_FILENO) == 1)) {
        return os::FileDescriptor();
    }
    return os::FileDescriptor(
        ::open("/proc/self/fd/1", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

}  // namespace

OutputStream::OutputStream(const std::string& path)
    : name_(path.empty() ? "standard output" : path), fd_(STDOUT_FILENO) {
    if (path.empty()) {
        file_ = ReopenStandardOutput();
    } else {
        file_ = os::FileDescriptor(
            ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
        if (file_.get() < 0) {
            throw CommandFailure(ExitCode::kFailure,
                                 "cannot create " + path + ": " + std::strerror(errno));
        }
    }
    if (file_.get() >= 0) {
        fd_ = file_.get();
    }
}

bool OutputStream::Write(std::span<iovec> parts, StopSignal& stop) {
    while (!parts.empty()) {
        const ssize_t count = ::writev(fd_, parts.data(), static_cast<int>(parts.size()));
        if (count < 0) {
            std::array<pollfd, 1> output{pollfd{fd_, POLLOUT, 0}};
            if (errno == EINTR || (errno == EAGAIN && stop.Wait(output, std::nullopt))) {
                continue;
            }
            if (errno == EPIPE || stop.requested()) {
                return false;
            }
            throw CommandFailure(ExitCode::kFailure,
                                 "cannot write to " + name_ + ": " + std::strerror(errno));
        }
        auto left = static_cast<std::size_t>(count);
        while (!parts.empty() && left >= parts.front().iov_len) {
            left -= parts.front().iov_len;
            parts = parts.subspan(1);
        }
        if (!parts.empty()) {
            parts.front().iov_base = static_cast<char*>(parts.front().iov_base) + left;
            parts.front().iov_len -= left;
        }
    }
    return true;
}

}  // namespace kvo::tools
