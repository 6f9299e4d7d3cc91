#pragma once

#include "kvo/memory/process_lock.h"
#include "kvo/os/process_identity.h"
#include "streams/supervised_time.h"

#include <chrono>
#include <optional>
#include <string>

namespace kvo::brokerd {

/// What is known of the processes of clients.
class Processes {
public:
    virtual ~Processes() = default;
    /// The one that has joined with this identity.
    virtual std::optional<ProcessTag> Find(const os::ProcessIdentity& identity) const = 0;
    /// By the kernel's knowledge.
    virtual bool Lives(const ProcessTag& tag) const = 0;
    /// Whether a connection of it to this broker answers. A stopped process loses its connections.
    virtual bool Connected(const std::string& identity) const = 0;
};

/// The one behind a registration: known by the identity it presents, alive as long as its process
/// is, silent when it has ended its heartbeats, and stalled when it can send none.
class Client {
public:
    /// @param identity 16 bytes, or empty: then heartbeats alone tell. @param user on whose account
    /// it goes, for people too. @param now supervised time.
    Client(std::string identity, std::string user, TimePoint now)
        : identity_(std::move(identity)), user_(std::move(user)), beat_(now) {}

    bool Is(const std::string& identity) const { return identity_ == identity; }
    const std::string& identity() const { return identity_; }
    const std::string& user() const { return user_; }
    void Beat(TimePoint now) { beat_ = now; }
    TimePoint beat() const { return beat_; }

    /// It has named its process, which has not been found yet.
    bool awaits_process() const {
        return !tag_ && identity_.size() == os::ProcessIdentity{}.size();
    }

    enum class State {
        kAlive,
        kStalled,  // no heartbeat in time, but a living process without connection
        kSilent,   // no heartbeat in time
        kDead,
    };
    /// @param timeout 0: no heartbeats are asked for.
    State Judge(const Processes& processes, TimePoint now, std::chrono::seconds timeout);
    /// As of the last Judge().
    bool stalled() const { return state_ == State::kStalled; }

private:
    std::string identity_;
    std::string user_;
    TimePoint beat_;
    std::optional<ProcessTag> tag_;  // once its process has taken a lock byte
    State state_ = State::kAlive;
};

}  // namespace kvo::brokerd
