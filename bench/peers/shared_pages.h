#pragma once

#include <cerrno>
#include <cstddef>
#include <sys/mman.h>
#include <system_error>

namespace kvo::bench {

/// Zeroed objects that this process and its future children see alike.
template <class T>
class SharedPages {
public:
    explicit SharedPages(std::size_t count)
        : bytes_(count * sizeof(T)),
          begin_(static_cast<T*>(::mmap(nullptr, bytes_, PROT_READ | PROT_WRITE,
                                        MAP_SHARED | MAP_ANONYMOUS | MAP_POPULATE, -1, 0))) {
        if (begin_ == MAP_FAILED) {
            throw std::system_error(errno, std::generic_category(), "mapping shared memory");
        }
    }
    SharedPages(const SharedPages&) = delete;
    SharedPages& operator=(const SharedPages&) = delete;
    ~SharedPages() { ::munmap(begin_, bytes_); }

    T* begin() const { return begin_; }
    T& operator[](std::size_t index) const { return begin_[index]; }

private:
    const std::size_t bytes_;
    T* const begin_;
};

}  // namespace kvo::bench
