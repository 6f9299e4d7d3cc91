#pragma once

#include "kvo/memory/process_lock.h"
#include "kvo/os/process_identity.h"
#include "streams/supervised_time.h"

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace kvo::brokerd {

/// The process of a client; none: it has presented no identity. All clients without one count as
/// one process.
using ClientIdentity = std::optional<os::ProcessIdentity>;

/// @param bytes as the middleware hands them over; none but a whole identity counts.
ClientIdentity ParseIdentity(std::string_view bytes);

/// The owner of a registration.
struct Registrant {
    ClientIdentity identity;
    std::string user;  // the account that it counts for, also shown to people
};

/// What is known of the processes of clients.
class Processes {
public:
    virtual ~Processes() = default;
    /// The one that has joined with this identity.
    virtual std::optional<ProcessTag> Find(const os::ProcessIdentity& identity) const = 0;
    /// By the kernel's knowledge.
    virtual bool Lives(const ProcessTag& tag) const = 0;
    /// Whether a connection of it to this broker answers. A stopped process loses its connections.
    virtual bool Connected(const os::ProcessIdentity& identity) const = 0;
};

/// The client behind a registration: known by the identity it presents, alive as long as its
/// process is, silent when it has ended its heartbeats, and stalled when it can send none.
class Client {
public:
    /// @param registrant without identity: heartbeats alone tell. @param now supervised time.
    Client(Registrant registrant, TimePoint now)
        : registrant_(std::move(registrant)), heartbeat_(now) {}

    bool Is(const ClientIdentity& identity) const { return registrant_.identity == identity; }
    const std::string& user() const { return registrant_.user; }
    void OnHeartbeat(TimePoint now) { heartbeat_ = now; }
    TimePoint heartbeat() const { return heartbeat_; }

    /// It has named its process, which has not been found yet.
    bool awaits_process() const { return !tag_ && registrant_.identity; }

    enum class State {
        kAlive,
        kStalled,  // no heartbeat in time, but a living process without connection
        kSilent,   // no heartbeat in time
        kDead,
    };
    /// @param timeout 0: heartbeats are not supervised.
    State Judge(const Processes& processes, TimePoint now, std::chrono::seconds timeout);
    /// As of the last Judge().
    bool stalled() const { return state_ == State::kStalled; }

private:
    Registrant registrant_;
    TimePoint heartbeat_;
    std::optional<ProcessTag> tag_;  // once its process has taken a lock byte
    State state_ = State::kAlive;
};

}  // namespace kvo::brokerd
