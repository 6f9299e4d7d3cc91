#pragma once

#include "kvo/os/process_identity.h"
#include "streams/liveness.h"

#include <functional>
#include <map>
#include <optional>

namespace kvo::brokerd {

/// The processes that use a broker's directory: joined and alive by its lock file, connected as
/// the server says. Threads: one.
class LockedProcesses final : public Processes {
public:
    explicit LockedProcesses(const ProcessLock& lock) : lock_(lock) {}

    std::optional<ProcessTag> Find(const os::ProcessIdentity& identity) const override;
    bool Lives(const ProcessTag& tag) const override { return lock_.Lives(tag); }
    bool Connected(const os::ProcessIdentity& identity) const override {
        return connected_(identity);
    }

    /// The records are read again at the next Find(), once for all until the next call of this.
    void Refresh() { outdated_ = true; }
    /// Until it is called, all count as connected.
    void SetConnected(std::function<bool(const os::ProcessIdentity& identity)> connected) {
        connected_ = std::move(connected);
    }

private:
    const ProcessLock& lock_;
    std::function<bool(const os::ProcessIdentity&)> connected_ = [](const os::ProcessIdentity&) {
        return true;
    };
    mutable bool outdated_ = true;
    mutable std::multimap<os::ProcessIdentity, ProcessTag> joined_;
};

}  // namespace kvo::brokerd
