#pragma once

#include "kvo/brokerd/broker_state.h"
#include "kvo/brokerd/federation_engine.h"
#include "kvo/memory/stream_file.h"
#include "kvo/os/file_access.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kvo {
class KvoLogger;
}

namespace kvo::brokerd {

struct BrokerOptions {
    std::string address = "127.0.0.1";
    std::uint16_t port = 5000;            // 0: any free one
    std::uint16_t notification_port = 0;  // 0: any free one
    // Of the stream files. Empty: /dev/shm/kvo-<user id>-<port>; with port 0 one with a random
    // name, which no successor looks for.
    std::string directory;
    std::chrono::seconds heartbeat_period{1};
    std::chrono::seconds heartbeat_timeout{10};
    std::chrono::milliseconds removal_grace{2000};  // from the end of a publisher to SHM_DEL
    std::uint64_t memory_budget_bytes = 0;  // of all stream files; 0: half of the file system
    std::uint32_t max_streams = 4096;
    std::uint32_t max_connections = 10'000;
    std::uint32_t request_rate = 1000;   // of one connection, a second; 0: no limit
    std::uint32_t request_burst = 4000;  // of one connection at once
    // Whether publishers of this host tell subscribers of new data themselves, through memory, and
    // samples are counted in the stream files. Else the broker is told of each sample.
    bool local_topics = true;
    // Of the Unix sockets. Empty: where clients look for them by themselves.
    std::string runtime_directory;
    // The rights of peers, first match decides: "allow publish /camera/* to user:alice". Empty:
    // every local peer and every allowed key may publish and subscribe.
    std::vector<std::string> access_rules;
    // CURVE for TCP: the broker's key pair, and the names and public keys that may connect. Empty:
    // none, which serves loopback addresses only, unless plaintext is allowed.
    std::string secret_key_file;
    std::string allowed_keys_file;
    bool allow_plaintext = false;
    std::uint32_t pending_answers = 1000;  // of one connection that reads none; more are dropped
    // What one process, and one user of this host or key, may have; 0: no limit. Callers that tell
    // no process count as one, and so do those over TCP without keys.
    std::uint32_t client_streams = 0;       // published or subscribed to
    std::uint64_t client_memory_bytes = 0;  // of the streams that it publishes
    std::uint32_t user_streams = 0;
    std::uint64_t user_memory_bytes = 0;
    SpareSlots spare_slots;
    os::FileAccess file_access;
    // What other brokers call this one, and its exported topics; unlike for any two that work
    // together. Empty: the host's name and the port.
    std::string name;
    // Streams that are exported whenever they have a publisher, with * as in access rules; others
    // are when another broker asks.
    std::vector<std::string> exported_streams;
    FederationOptions federation;
    // For a program that brings its own engine instead of the module.
    std::function<std::unique_ptr<FederationEngine>(const FederationOptions&)>
        make_federation_engine;
};

/// Throws std::invalid_argument saying why the text is no rule for BrokerOptions::access_rules.
void CheckAccessRule(const std::string& rule);

/// A broker: answers requests, keeps stream files and publishes notifications, on a thread of its
/// own, for as long as the object lives. Programs can embed it.
/// Threads: any.
class Broker {
public:
    /// Takes directory and addresses and starts; throws std::runtime_error naming what is in the
    /// way (a port in use, a second broker on the directory, an option out of range).
    /// @param logger not owned, may be null, must outlive the broker.
    Broker(const BrokerOptions& options, KvoLogger* logger);
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;
    /// Stops: streams without a living writer or reader are removed, the others stay for the
    /// next broker on this directory.
    ~Broker();

    std::uint16_t port() const;
    std::uint16_t notification_port() const;
    const std::string& directory() const;
    std::string uri() const;  // "wkp.rr://address:port"

    BrokerState State() const;

    /// Puts into force what can be changed while a broker runs: heartbeat time-out, removal grace,
    /// limits of streams, memory, requests, clients and
    /// users, access rules, allowed keys. Throws as the
    /// constructor, and changes nothing then.
    void Reconfigure(const BrokerOptions& options);

    /// Ends all registrations, telling the subscribers, removes all stream files and refuses new
    /// ones. The broker answers until it is destroyed.
    void Drain();

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace kvo::brokerd
