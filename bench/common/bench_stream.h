#pragma once

#include "kvo/memory/memory_accessor.h"
#include "kvo/memory/stream_file.h"

#include <memory>
#include <string>
#include <vector>

namespace kvo::bench {

/// A stream with files of its own in /dev/shm, gone with the object.
class BenchStream {
public:
    BenchStream(int payload_bytes, int retained);
    BenchStream(const BenchStream&) = delete;
    BenchStream& operator=(const BenchStream&) = delete;
    ~BenchStream();

    std::unique_ptr<KvoMemoryAccessor> Writer() const;
    std::unique_ptr<KvoMemoryAccessor> Reader() const { return ReaderOf(path()); }
    /// The same in a process that knows only where the file is.
    static std::unique_ptr<KvoMemoryAccessor> ReaderOf(const std::string& path);

    const std::string& path() const { return file_->path(); }

    /// How many slots a writer goes through before it comes back to one.
    int slots_in_turn() const;
    /// That many payloads of the file, mapped for writing; valid until the end of the process.
    std::vector<unsigned char*> MapSlots() const;

    static void Write(KvoMemoryAccessor& writer, const unsigned char* payload, int bytes);
    static const DataSample* Take(KvoMemoryAccessor& reader);

private:
    std::string directory_;
    std::unique_ptr<StreamFile> file_;
};

/// An application's data: eight buffers in turn, so that the copy's source is not always the same.
class Sources {
public:
    explicit Sources(int bytes);
    const unsigned char* Next() {
        next_ = (next_ + 1) % buffers_.size();
        return buffers_[next_].data();
    }

private:
    std::vector<std::vector<unsigned char>> buffers_;
    std::size_t next_ = 0;
};

}  // namespace kvo::bench
