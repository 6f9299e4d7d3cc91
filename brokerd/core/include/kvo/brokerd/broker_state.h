#pragma once

#include "kvo/broker/remote_stream_state.h"

#include <cstdint>
#include <string>
#include <vector>

// What a broker shows of itself, for people and for monitoring. Copies: nothing here changes.
namespace kvo::brokerd {

struct StreamState {
    std::string name;
    bool published = false;
    std::string remote_broker;  // that it is imported from; empty: it is of this host
    bool remote_live = false;   // and whether it has a publisher there
    std::uint64_t subscribers = 0;
    std::uint64_t samples = 0;        // written in the present segment
    std::uint64_t payload_bytes = 0;  // of these
    std::uint64_t dropped = 0;        // at the writer
    std::uint64_t last_write_ms = 0;  // since the Unix epoch; 0: never
    std::string path;                 // of the stream file
    std::uint64_t epoch = 0;          // 0: there is no file, and the rest of this is 0 too
    std::uint32_t max_payload_bytes = 0;
    std::uint32_t retained_samples = 0;
    std::uint64_t file_bytes = 0;  // data file and control file
};

struct ClientState {
    std::string id;  // the stream of a publisher, the uuid of a subscriber
    bool publisher = false;
    std::string stream;
    bool stalled = false;             // no heartbeat in time, but its process lives
    std::uint64_t silent_for_ms = 0;  // since its last heartbeat
};

struct BrokerEvent {
    std::uint64_t time_ms = 0;  // since the Unix epoch
    std::string kind;           // PUB_REG, PUB_UNREG, SHM_DEL, refused
    std::string stream;
    std::string text;  // the reason of a refusal
};

struct BrokerState {
    std::uint64_t uptime_s = 0;
    bool draining = false;
    std::uint64_t connections = 0;
    std::uint64_t requests = 0;   // answered since the start
    std::uint64_t throttled = 0;  // of these: refused by a limit of requests or connections
    std::uint64_t refusals = 0;   // registrations that were refused
    std::uint64_t notifications = 0;
    std::uint64_t memory_used_bytes = 0;
    std::uint64_t memory_budget_bytes = 0;
    std::vector<StreamState> streams;
    std::vector<ClientState> clients;
    std::vector<RemoteStreamState> remote_streams;
    std::vector<BrokerEvent> events;  // the newest ones, oldest first
};

}  // namespace kvo::brokerd
