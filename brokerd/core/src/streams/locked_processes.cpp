#include "streams/locked_processes.h"

#include "kvo/os/process_identity.h"

#include <utility>

namespace kvo::brokerd {

std::optional<ProcessTag> LockedProcesses::Find(const os::ProcessIdentity& identity) const {
    if (std::exchange(outdated_, false)) {
        joined_.clear();
        for (const auto& [joined, tag] : lock_.Joined()) {
            joined_.emplace(joined, tag);
        }
    }
    const auto [first, last] = joined_.equal_range(identity);
    for (auto entry = first; entry != last; ++entry) {
        // A record outlives its process.
        if (lock_.Lives(entry->second)) {
            return entry->second;
        }
    }
    return std::nullopt;
}

}  // namespace kvo::brokerd
