#include "sample_source.h"

#include "exit_codes.h"
#include "kvo/os/file_descriptor.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>
#include <utility>

namespace kvo::tools {
InputStream::InputStream(const std::string& path) : name_(path) {
    if (path.empty() || path == "-") {
        name_ = "standard input";
        return;
    }
    file_ = os::FileDescriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    fd_ = file_.get();
    if (fd_ < 0) {
        throw CommandFailure(ExitCode::kFailure,
                             "cannot open " + path + ": " + std::strerror(errno));
    }
}

std::size_t InputStream::Read(std::span<unsigned char> buffer, StopSignal& stop) {
    std::array<pollfd, 1> input{pollfd{fd_, POLLIN, 0}};
    while (stop.Wait(input, std::nullopt)) {
        const ssize_t count = ::read(fd_, buffer.data(), buffer.size());
        if (count >= 0) {
            return static_cast<std::size_t>(count);
        }
        if (errno != EINTR && errno != EAGAIN) {
            throw CommandFailure(ExitCode::kFailure,
                                 "cannot read " + name_ + ": " + std::strerror(errno));
        }
    }
    return 0;
}

ChunkSource::ChunkSource(InputStream input, std::size_t chunk_bytes)
    : input_(std::move(input)), chunk_(chunk_bytes) {}

std::optional<std::span<const unsigned char>> ChunkSource::Next(StopSignal& stop) {
    const std::span<unsigned char> chunk(chunk_);
    std::size_t filled = 0;
    while (filled < chunk.size()) {
        const std::size_t count = input_.Read(chunk.subspan(filled), stop);
        if (count == 0) {
            break;
        }
        filled += count;
    }
    if (filled == 0) {
        return std::nullopt;
    }
    return chunk.first(filled);
}

LineSource::LineSource(InputStream input, std::size_t longest_line_bytes)
    : input_(std::move(input)), buffer_(longest_line_bytes + 1) {}

std::optional<std::span<const unsigned char>> LineSource::Next(StopSignal& stop) {
    ++line_number_;
    std::size_t searched = begin_;
    for (;;) {
        const auto from = buffer_.begin() + static_cast<std::ptrdiff_t>(searched);
        const auto until = buffer_.begin() + static_cast<std::ptrdiff_t>(end_);
        const auto newline = std::find(from, until, '\n');
        if (newline != until) {
            const auto position = static_cast<std::size_t>(newline - buffer_.begin());
            const auto line = std::span(buffer_).subspan(begin_, position - begin_);
            begin_ = position + 1;
            return line;
        }
        if (begin_ > 0) {
            std::copy(buffer_.begin() + static_cast<std::ptrdiff_t>(begin_), until,
                      buffer_.begin());
            end_ -= begin_;
            begin_ = 0;
        }
        if (end_ == buffer_.size()) {
            throw CommandFailure(ExitCode::kFailure,
                                 "line " + std::to_string(line_number_) + " of " + input_.name() +
                                     " is longer than " + std::to_string(buffer_.size() - 1) +
                                     " bytes; allow longer ones with --max-size");
        }
        searched = end_;
        const std::size_t count = input_.Read(std::span(buffer_).subspan(end_), stop);
        if (count == 0) {
            break;
        }
        end_ += count;
    }
    // The last line may lack its newline.
    const auto rest = std::span(buffer_).first(std::exchange(end_, 0));
    if (rest.empty() || stop.requested()) {
        return std::nullopt;
    }
    return rest;
}

}  // namespace kvo::tools
