#pragma once

#include "kvo/os/process_identity.h"
#include "streams/liveness.h"

#include <functional>
#include <map>
#include <optional>
#include <string>

namespace kvo::brokerd {

/// The processes that use a broker's directory: joined and alive by its lock file, connected by
/// the word of the server. Threads: one.
class LockedProcesses final : public Processes {
public:
    explicit LockedProcesses(const ProcessLock& lock) : lock_(lock) {}

    std::optional<ProcessTag> Find(const os::ProcessIdentity& identity) const override;
    bool Lives(const ProcessTag& tag) const override { return lock_.Lives(tag); }
    bool Connected(const std::string& identity) const override { return connected_(identity); }

    /// The records are read again at the next Find(), once for all until the next call of this.
    void Refresh() { outdated_ = true; }
    /// Before, everybody counts as connected.
    void AskForConnections(std::function<bool(const std::string& identity)> connected) {
        connected_ = std::move(connected);
    }

private:
    const ProcessLock& lock_;
    std::function<bool(const std::string&)> connected_ = [](const std::string&) { return true; };
    mutable bool outdated_ = true;
    mutable std::multimap<os::ProcessIdentity, ProcessTag> joined_;
};

}  // namespace kvo::brokerd
