#pragma once

#include "gorm/cor/serving.h"

#include <cstddef>
#include <string>
#include <utility>

namespace gorm::cor {

/// A file of fixed size, mapped as shared memory. Threads: what lies in it says.
class SharedFile {
public:
    enum class Mode { kRead, kWrite };

    /// Makes the file, all zero, with all of its memory reserved. Throws std::system_error naming
    /// it, and leaves nothing behind.
    static SharedFile Create(const std::string& path, std::size_t bytes, const FileAccess& access);
    /// Maps what is there. Throws std::system_error, or Error when it is shorter than `bytes`, is
    /// no file, or belongs to somebody whom nobody should trust.
    static SharedFile Open(const std::string& path, std::size_t bytes, Mode mode);

    SharedFile(SharedFile&& other) noexcept
        : memory_(std::exchange(other.memory_, nullptr)), bytes_(other.bytes_) {}
    SharedFile& operator=(SharedFile&& other) noexcept {
        std::swap(memory_, other.memory_);
        std::swap(bytes_, other.bytes_);
        return *this;
    }
    ~SharedFile();

    template <class T>
    T& as() const {
        return *static_cast<T*>(memory_);
    }

private:
    SharedFile(int descriptor, std::size_t bytes, Mode mode, const std::string& path);

    void* memory_;
    std::size_t bytes_;
};

}  // namespace gorm::cor
