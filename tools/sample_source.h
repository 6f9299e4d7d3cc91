#pragma once

#include "kvo/os/file_descriptor.h"
#include "stop_signal.h"

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace kvo::tools {

/// Where `kvo pub` takes its samples from.
class SampleSource {
public:
    virtual ~SampleSource() = default;
    /// The next sample, valid until the next call; nothing at the end of the data or when the
    /// user wants to end. Waits for data.
    virtual std::optional<std::span<const unsigned char>> Next(StopSignal& stop) = 0;
};

/// Bytes of a file, a pipe or a terminal.
class InputStream {
public:
    /// @param path empty or "-": standard input. Throws CommandFailure.
    explicit InputStream(const std::string& path);
    /// @return bytes read into the buffer; 0 at the end or when the user wants to end.
    std::size_t Read(std::span<unsigned char> buffer, StopSignal& stop);
    const std::string& name() const { return name_; }

private:
    std::string name_;
    os::FileDescriptor file_;  // none for standard input
    int fd_ = 0;
};

/// Pieces of equal size; the last may be shorter.
class ChunkSource final : public SampleSource {
public:
    ChunkSource(InputStream input, std::size_t chunk_bytes);
    std::optional<std::span<const unsigned char>> Next(StopSignal& stop) override;

private:
    InputStream input_;
    std::vector<unsigned char> chunk_;
};

/// Lines, without their newlines.
class LineSource final : public SampleSource {
public:
    LineSource(InputStream input, std::size_t longest_line_bytes);
    /// Throws CommandFailure for a line that is too long.
    std::optional<std::span<const unsigned char>> Next(StopSignal& stop) override;

private:
    InputStream input_;
    std::vector<unsigned char> buffer_;
    std::size_t begin_ = 0;  // of what was not given out yet, within buffer_
    std::size_t end_ = 0;
    std::size_t line_number_ = 0;
};

}  // namespace kvo::tools
