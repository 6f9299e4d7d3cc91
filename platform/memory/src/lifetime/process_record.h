#pragma once

#include "kvo/memory/process_lock.h"
#include "kvo/os/process_identity.h"

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

// The lock file of a directory: byte n is locked by the process with number n, and beside it, at
// RecordOffset(n), stands who that is.
namespace kvo {

inline constexpr const char* kProcessLockName = "process.lock";
inline constexpr off_t kRecordsOffset = 4096;

// Written by the holder of the byte.
struct ProcessRecord {
    std::uint64_t nonce;  // 0: none
    os::ProcessIdentity identity;
    std::uint32_t process_id;  // for people; in the writer's own namespace
    std::uint32_t room[9];
};
static_assert(sizeof(ProcessRecord) == 64);
static_assert(offsetof(ProcessRecord, identity) == 8);

constexpr off_t RecordOffset(std::uint16_t number) {
    return kRecordsOffset + static_cast<off_t>(number) * static_cast<off_t>(sizeof(ProcessRecord));
}

inline constexpr off_t kProcessLockBytes = RecordOffset(kMaxProcesses + 1);

}  // namespace kvo
