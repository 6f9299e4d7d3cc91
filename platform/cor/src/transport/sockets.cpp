#include "transport/sockets.h"

#include "gorm/cor/errors.h"
#include "transport/address.h"
#include "transport/bounds.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <sys/eventfd.h>
#include <unistd.h>

namespace gorm::cor {
namespace {

int Milliseconds(std::chrono::milliseconds duration) {
    return static_cast<int>(duration.count());
}

std::string NewMonitorEndpoint() {
    static std::atomic<std::uint64_t> count{0};
    // relaxed: only has to be another number each time.
    return "inproc://gorm.cor.monitor." +
           std::to_string(count.fetch_add(1, std::memory_order_relaxed));
}

zmq::socket_t OpenSocket(zmq::context_t& context, zmq::socket_type type) {
    try {
        return zmq::socket_t(context, type);
    } catch (const zmq::error_t& error) {
        throw Error(std::string("no socket: ") + error.what());
    }
}

Monitor::Event EventOf(const std::vector<zmq::message_t>& frames) {
    // The first frame is a 16-bit event and a 32-bit value, the second the address.
    std::uint16_t kind = 0;
    std::int32_t value = -1;
    if (frames.empty() || frames[0].size() < sizeof kind + sizeof value) {
        return {};
    }
    std::memcpy(&kind, frames[0].data(), sizeof kind);
    std::memcpy(&value, frames[0].data<char>() + sizeof kind, sizeof value);
    return {kind, value};
}

}  // namespace

zmq::socket_t MakeSocket(zmq::context_t& context, zmq::socket_type type, int queue,
                         std::size_t max_message_bytes) {
    zmq::socket_t socket = OpenSocket(context, type);
    socket.set(zmq::sockopt::linger, 0);
    socket.set(zmq::sockopt::sndhwm, queue);
    socket.set(zmq::sockopt::rcvhwm, queue);
    socket.set(zmq::sockopt::maxmsgsize, static_cast<std::int64_t>(max_message_bytes));
    socket.set(zmq::sockopt::heartbeat_ivl, Milliseconds(kHeartbeatInterval));
    socket.set(zmq::sockopt::heartbeat_timeout, Milliseconds(kHeartbeatTimeout));
    socket.set(zmq::sockopt::heartbeat_ttl, Milliseconds(kHeartbeatTtl));
    socket.set(zmq::sockopt::handshake_ivl, Milliseconds(kHandshakeInterval));
    return socket;
}

void SetReconnect(zmq::socket_t& socket) {
    socket.set(zmq::sockopt::reconnect_ivl, Milliseconds(kReconnectFirst));
    socket.set(zmq::sockopt::reconnect_ivl_max, Milliseconds(kReconnectMost));
}

bool Receive(zmq::socket_t& socket, std::vector<zmq::message_t>& frames, std::size_t most) {
    frames.clear();
    for (bool more = true; more;) {
        zmq::message_t frame;
        // The frames of a message arrive together, so only the first one can be missing.
        if (!socket.recv(frame, zmq::recv_flags::dontwait)) {
            return false;
        }
        more = frame.more();
        if (frames.size() < most) {
            frames.push_back(std::move(frame));
        }
    }
    return true;
}

std::string_view View(const zmq::message_t& frame) {
    return {static_cast<const char*>(frame.data()), frame.size()};
}

Monitor::Monitor(zmq::context_t& context, zmq::socket_t& watched, int events)
    : watched_(watched), events_(OpenSocket(context, zmq::socket_type::pair)) {
    const std::string endpoint = NewMonitorEndpoint();
    if (zmq_socket_monitor(watched.handle(), endpoint.c_str(), events) != 0) {
        throw Error(std::string("no socket events: ") + zmq_strerror(zmq_errno()));
    }
    events_.set(zmq::sockopt::linger, 0);
    // The other end sends from the transport's own thread and would wait for room.
    events_.set(zmq::sockopt::rcvhwm, 0);
    events_.connect(endpoint);
}

Monitor::~Monitor() {
    zmq_socket_monitor(watched_.handle(), nullptr, 0);
}

Monitor::Event Monitor::Next() {
    std::vector<zmq::message_t> frames;
    return Receive(events_, frames) ? EventOf(frames) : Event{};
}

bool Monitor::Await(int events, std::chrono::milliseconds at_most) {
    const auto deadline = std::chrono::steady_clock::now() + at_most;
    for (;;) {
        for (int event = Next().kind; event != 0; event = Next().kind) {
            if ((event & events) != 0) {
                return true;
            }
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        zmq_pollitem_t item{events_.handle(), 0, ZMQ_POLLIN, 0};
        if (left.count() <= 0 || (zmq_poll(&item, 1, left.count()) < 0 && errno != EINTR)) {
            return false;
        }
    }
}

std::string Bind(zmq::socket_t& socket, const std::string& endpoint, const std::string& text) {
    // The transport ends the process when it finds no descriptor to look the interface up with, so
    // one is asked for first. Another thread may still take it; nothing closes that gap.
    const int spare = ::eventfd(0, EFD_CLOEXEC);
    if (spare < 0) {
        throw BindError("cannot serve \"" + text + "\": " + std::strerror(errno));
    }
    ::close(spare);
    try {
        socket.bind(endpoint);
    } catch (const zmq::error_t& error) {
        throw BindError("cannot serve \"" + text + "\": " + error.what());
    }
    return socket.get(zmq::sockopt::last_endpoint);
}

void Unbind(zmq::socket_t& socket, Monitor& monitor, const std::string& endpoint) noexcept {
    if (endpoint.empty()) {
        return;
    }
    try {
        socket.unbind(endpoint);
        monitor.Await(ZMQ_EVENT_CLOSED | ZMQ_EVENT_CLOSE_FAILED, std::chrono::seconds(1));
    } catch (const std::exception&) {  // closing the socket frees the address too, a little later
    }
}

}  // namespace gorm::cor
