#pragma once

#include "core/broker_link.h"
#include "core/guarded.h"
#include "core/logger_gate.h"
#include "gorm/cor/rr/listener_registration.h"
#include "kvo/os/fork_guard.h"

#include <atomic>
#include <exception>
#include <future>
#include <memory>
#include <string>

namespace kvo {

/// The heartbeat that was started last. Each thread holds the future of its own start, so dropping
/// the promise ends it, and writes the running flag of its own start, so that an old thread that
/// ends cannot hide a new one that runs.
struct Heartbeat {
    std::string heartbeat_id;
    std::promise<void> heartbeat_stop_promise;
    std::shared_ptr<std::atomic<bool>> heartbeat_running =
        std::make_shared<std::atomic<bool>>(false);
};

/// What a publisher, subscriber or statistics client shares with its threads (heartbeat,
/// connection listener, re-registration). A thread holds a reference, so the state outlives the
/// object as long as one of them runs; the object's destructor silences and disconnects it.
struct TransferState {
    const int default_reply_time = 6;  // seconds
    const int min_reply_time = 2;      // seconds
    const std::string broker_path = "/broker/Broker1";
    const int default_latency = 10000;       // milliseconds
    const int default_deadline = 10;         // seconds
    const int default_heartbeat_period = 1;  // seconds

    std::atomic<int> latency = default_latency;
    std::atomic<int> deadline = default_deadline;
    std::atomic<int> reply_time = default_reply_time;
    std::atomic<int> heartbeat_period = default_heartbeat_period;
    std::atomic<bool> connected_to_broker = false;
    // Set once, by the destructor. A registration that completes afterwards is undone.
    std::atomic<bool> closed = false;

    LoggerGate logger;
    BrokerLink broker_client;
    Guarded<Heartbeat> heartbeat;

    // The registering thread only; its release waits for a run of the listener.
    gorm::cor::rr::ListenerRegistration listener_registration;
    std::unique_ptr<KvoLogger> owned_logger;

    /// Whether samples are passed on: a child of fork() has no connection.
    bool connected() const { return connected_to_broker && !os::InForkedChild(); }

    void Log(int level, const std::string& message) {
        KvoLogger::WriteToLogger(&logger, level, message);
    }
    /// The two lines that an exception leaves. @param where class and operation,
    /// "KvoDataPublisher: PublishData()".
    void LogException(const std::exception& error, const char* where, int level = 4) {
        Log(level, std::string("EXCEPTION: ") + error.what());
        Log(level, std::string("thrown in ") + where);
    }
};

/// For destructors. The threads that use a state stay in the parent of a forked child: nothing
/// there may wait for them, so the child keeps the state until it ends.
/// @return whether this is such a child.
template <class State>
[[nodiscard]] bool KeptInForkedChild(const std::shared_ptr<State>& state) {
    if (!os::InForkedChild()) {
        return false;
    }
    static_cast<void>(new std::shared_ptr<State>(state));
    return true;
}

}  // namespace kvo
