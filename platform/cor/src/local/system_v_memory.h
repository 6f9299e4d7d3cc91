#pragma once

#include "gorm/cor/serving.h"
#include "kvo/os/file_access.h"

#include <cstddef>
#include <sys/ipc.h>
#include <utility>

namespace gorm::cor {

/// Memory of fixed size that its users may write but none of them can make shorter, as a file could
/// be. It goes with the last process that has it mapped. Threads: what lies in it says.
class SystemVMemory {
public:
    /// Makes new memory, all zero. Throws std::system_error, and leaves nothing behind.
    /// @param key for one caller at a time. While the memory is made it has this name, so that the
    /// next call removes what a killed one has left; afterwards it has none.
    [[nodiscard]] static SystemVMemory Create(key_t key, std::size_t bytes,
                                              const kvo::os::FileAccess& access);
    /// Maps what is there. Throws std::system_error, or Error when it is smaller than `bytes` or
    /// was made by a user who is not trusted.
    [[nodiscard]] static SystemVMemory Attach(int id, std::size_t bytes);

    SystemVMemory(SystemVMemory&& other) noexcept
        : id_(other.id_), memory_(std::exchange(other.memory_, nullptr)) {}
    SystemVMemory& operator=(SystemVMemory&& other) noexcept {
        std::swap(id_, other.id_);
        std::swap(memory_, other.memory_);
        return *this;
    }
    ~SystemVMemory();

    /// What others attach it by, in this namespace of IPC; another namespace may have other memory
    /// of this number.
    int id() const { return id_; }

    template <class T>
    T& as() const {
        return *static_cast<T*>(memory_);
    }

private:
    explicit SystemVMemory(int id);

    int id_;
    void* memory_;
};

}  // namespace gorm::cor
