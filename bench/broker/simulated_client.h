#pragma once

#include "gorm/cor/rr/packing.h"

#include <msgpack.hpp>
#include <zmq.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

/// Clients of a broker that speak the wire by themselves and have no stream data, and a broker to
/// talk to.
namespace kvo::bench {

using Clock = std::chrono::steady_clock;

/// A broker that has not answered within this time has failed.
inline constexpr std::chrono::seconds kPatience{10};

/// What a broker uses at a moment.
struct Footprint {
    double cpu_seconds = 0;  // user and system, since its start
    std::uint64_t rss_bytes = 0;
    std::uint64_t shared_bytes = 0;  // of these in mapped stream files
};

/// A kvo-broker on free ports with a directory of its own. It ends with this process at the latest.
/// Threads: one; to be made before others are started.
class BrokerProcess {
public:
    /// Returns when the broker listens. Throws std::runtime_error saying what failed.
    /// @param program empty: the kvo-broker beside this program.
    BrokerProcess(const std::string& program, const std::vector<std::string>& options);
    BrokerProcess(const BrokerProcess&) = delete;
    BrokerProcess& operator=(const BrokerProcess&) = delete;
    /// Kills it where Stop() was not called, and removes its directory.
    ~BrokerProcess();

    /// Its TCP port, where anybody may call.
    const std::string& endpoint() const { return endpoint_; }
    /// Its Unix socket, which clients of its host prefer.
    const std::string& local_endpoint() const { return local_endpoint_; }
    /// Throws std::runtime_error when the broker has ended.
    Footprint Look() const;
    /// Ends it orderly. Throws std::runtime_error when it fails or leaves files behind.
    void Stop();

private:
    BrokerProcess();
    void Start(const std::string& program, const std::vector<std::string>& options);
    std::string streams() const { return directory_ + "/streams"; }

    std::string directory_;
    std::string endpoint_;
    std::string local_endpoint_;
    pid_t pid_ = -1;
};

/// A response of the broker.
struct Answer {
    std::uint32_t id = 0;
    std::string error;  // empty: it has a result
    msgpack::object_handle message;
    const msgpack::object& result() const { return message.get().via.array.ptr[3]; }
};

inline constexpr std::string_view kBrokerPath = "/broker/Broker1";

/// A connection to a broker for requests. Threads: one.
class SimulatedClient {
public:
    /// Draws the routing id of another process than that of all other clients.
    static std::string NewRoutingId();

    /// Connects; does not wait for the connection. @param routing_id empty: none.
    SimulatedClient(zmq::context_t& context, const std::string& endpoint,
                    const std::string& routing_id);

    /// Sends a request and returns its id. Throws std::runtime_error when there is no room for it
    /// for the time of our patience.
    template <class... A>
    std::uint32_t Ask(std::string_view method, const A&... arguments) {
        return AskPacked(method, gorm::cor::rr::PackParams(arguments...));
    }
    /// Takes the next answer without waiting. Throws std::runtime_error when it is no response.
    std::optional<Answer> Take();
    /// Becomes readable when something may be to take; a look by Take() clears it, and so may a
    /// sending.
    int descriptor() const { return socket_.get(zmq::sockopt::fd); }

private:
    std::uint32_t AskPacked(std::string_view method, const std::string& params);

    zmq::socket_t socket_;
    std::uint32_t last_id_ = 0;
};

/// Allows this process, and the broker that it starts later, so many open files. Throws
/// std::runtime_error when the system does not.
void AllowDescriptors(std::size_t count);

/// Sorts the values; `part` 0.5 is the median, 1 the largest. 0 when there are none.
double Percentile(std::vector<double>& values, double part);

}  // namespace kvo::bench
