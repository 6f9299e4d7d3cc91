#pragma once

#include "kvo/memory/process_lock.h"
#include "supervised_time.h"

#include <chrono>
#include <optional>
#include <string>

namespace kvo::brokerd {

/// Who lives by the kernel's knowledge.
class Processes {
public:
    virtual ~Processes() = default;
    virtual std::optional<ProcessTag> Find(const ProcessIdentity& identity) const = 0;
    virtual bool Lives(const ProcessTag& tag) const = 0;
};

/// The one behind a registration: known by the identity it presents, alive as long as its process
/// is, and silent when its heartbeats have ended.
class Client {
public:
    /// @param identity 16 bytes, or empty: then heartbeats alone tell. @param now supervised time.
    Client(std::string identity, TimePoint now) : identity_(std::move(identity)), beat_(now) {}

    bool Is(const std::string& identity) const { return identity_ == identity; }
    void Beat(TimePoint now) { beat_ = now; }

    /// It has named its process, which has not been found yet.
    bool awaits_process() const { return !tag_ && identity_.size() == ProcessIdentity{}.size(); }

    enum class State { kAlive, kSilent, kDead };
    /// @param timeout 0: no heartbeats are asked for.
    State Judge(const Processes& processes, TimePoint now, std::chrono::seconds timeout);

private:
    std::string identity_;
    TimePoint beat_;
    std::optional<ProcessTag> tag_;  // once its process has taken a lock byte
};

}  // namespace kvo::brokerd
