#include "local/system_v_memory.h"

#include "gorm/cor/errors.h"
#include "kvo/os/crash_point.h"
#include "kvo/os/file_access.h"
#include "kvo/os/trust.h"
#include "local/runtime_directory.h"

#include <cerrno>
#include <cstdint>
#include <string>
#include <sys/shm.h>
#include <system_error>

namespace gorm::cor {
namespace {

[[noreturn]] void Throw(int error, int id) {
    throw std::system_error(error, std::generic_category(),
                            "System V memory " + std::to_string(id));
}

void Remove(int id) {
    ::shmctl(id, IPC_RMID, nullptr);
}

int MakeExclusively(key_t key, std::size_t bytes) {
    return ::shmget(key, bytes, IPC_CREAT | IPC_EXCL | 0600);
}

}  // namespace

SystemVMemory::SystemVMemory(int id) : id_(id), memory_(::shmat(id, nullptr, 0)) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the interface's own value for an error.
    if (memory_ == reinterpret_cast<void*>(std::intptr_t{-1})) {
        Throw(errno, id);
    }
}

SystemVMemory::~SystemVMemory() {
    if (memory_ != nullptr) {
        ::shmdt(memory_);
    }
}

SystemVMemory SystemVMemory::Create(key_t key, std::size_t bytes,
                                    const kvo::os::FileAccess& access) {
    int id = MakeExclusively(key, bytes);
    if (id < 0 && errno == EEXIST) {
        if (const int left = ::shmget(key, 0, 0); left >= 0) {
            Remove(left);
        }
        id = MakeExclusively(key, bytes);
        if (id < 0 && errno == EEXIST) {
            id = ::shmget(IPC_PRIVATE, bytes, 0600);  // the key is another user's
        }
    }
    if (id < 0) {
        throw std::system_error(errno, std::generic_category(),
                                "System V memory of " + std::to_string(bytes) + " bytes");
    }
    KVO_CRASH_POINT("System V memory made");
    try {
        SystemVMemory memory(id);
        KVO_CRASH_POINT("System V memory mapped");
        shmid_ds status{};
        if (::shmctl(id, IPC_STAT, &status) != 0) {
            Throw(errno, id);
        }
        status.shm_perm.mode = static_cast<unsigned short>(access.mode & 0777);
        if (access.group) {
            status.shm_perm.gid = *access.group;
        }
        if (::shmctl(id, IPC_SET, &status) != 0) {
            Throw(errno, id);
        }
        KVO_CRASH_POINT("System V memory given its permissions");
        // On Linux it can still be attached by its id, for as long as a process has it mapped.
        Remove(id);
        return memory;
    } catch (...) {
        Remove(id);
        throw;
    }
}

SystemVMemory SystemVMemory::Attach(int id, std::size_t bytes) {
    shmid_ds status{};
    if (::shmctl(id, IPC_STAT, &status) != 0) {
        Throw(errno, id);
    }
    if (status.shm_segsz < bytes) {
        throw Error("System V memory " + std::to_string(id) + " has less than " +
                    std::to_string(bytes) + " bytes");
    }
    if (!kvo::os::IsTrustedUser(status.shm_perm.cuid)) {
        throw Error("System V memory " + std::to_string(id) + " was made by user " +
                    std::to_string(status.shm_perm.cuid));
    }
    return SystemVMemory(id);
}

}  // namespace gorm::cor
