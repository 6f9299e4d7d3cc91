#pragma once

#include "kvo/os_export.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

namespace kvo::os {

/// A file's bytes in memory, shared with other processes and absent in a forked child.
/// Threads: what lies in it says.
class KVO_OS_EXPORT MappedFile {
public:
    enum class Access { kRead, kWrite };

    MappedFile() = default;
    /// Maps the first bytes of an open file; throws std::system_error naming it.
    MappedFile(int fd, std::size_t bytes, Access access, const std::string& name);
    MappedFile(MappedFile&& other) noexcept
        : begin_(std::exchange(other.begin_, nullptr)), bytes_(other.bytes_) {}
    MappedFile& operator=(MappedFile&& other) noexcept {
        std::swap(begin_, other.begin_);
        std::swap(bytes_, other.bytes_);
        return *this;
    }
    ~MappedFile();

    unsigned char* at(std::uint64_t offset) const { return begin_ + offset; }
    /// What the file begins with. The caller has made sure that it is that long.
    template <class T>
    T& as() const {
        return *reinterpret_cast<T*>(begin_);
    }

private:
    unsigned char* begin_ = nullptr;
    std::size_t bytes_ = 0;
};

}  // namespace kvo::os
