#pragma once

#include <zmq.hpp>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace gorm::cor {

/// A socket with what all of ours have: heartbeats, limits for what a peer may send and for how
/// long it may take to introduce itself, and no waiting for unsent messages when it is closed.
/// Throws Error when the process has no room for it.
zmq::socket_t MakeSocket(zmq::context_t& context, zmq::socket_type type, int queue,
                         std::size_t max_message_bytes);
void SetReconnect(zmq::socket_t& socket);

/// Takes one whole message without waiting. @param most frames to keep; those beyond are dropped.
/// @return false: none is there.
[[nodiscard]] bool Receive(zmq::socket_t& socket, std::vector<zmq::message_t>& frames,
                           std::size_t most = 4);

std::string_view View(const zmq::message_t& frame);

/// The events of another socket. The thread of that socket only.
class Monitor {
public:
    /// @param events ZMQ_EVENT_... to report. Throws Error.
    Monitor(zmq::context_t& context, zmq::socket_t& watched, int events);
    Monitor(const Monitor&) = delete;
    Monitor& operator=(const Monitor&) = delete;
    ~Monitor();

    zmq::socket_ref socket() { return events_; }
    struct Event {
        int kind = 0;    // ZMQ_EVENT_...; 0: none is there
        int value = -1;  // descriptor of the connection, or a fault, as the kind says
    };
    /// Takes the next event without waiting.
    Event Next();
    /// Waits for one of the events and drops others before it. @return false: it did not come.
    bool Await(int events, std::chrono::milliseconds at_most);

private:
    zmq::socket_t& watched_;
    zmq::socket_t events_;
};

/// Binds the socket; throws BindError naming the address and the reason. @return the endpoint as
/// it was bound, with its port.
[[nodiscard]] std::string Bind(zmq::socket_t& socket, const std::string& endpoint,
                               const std::string& text);

/// Ends listening there and returns when the address is free for another, at the latest after a
/// second. Nothing for an empty endpoint.
void Unbind(zmq::socket_t& socket, Monitor& monitor, const std::string& endpoint) noexcept;

}  // namespace gorm::cor
