#include "address.h"
#include "bounds.h"
#include "gorm/cor/process.h"
#include "gorm/cor/rr/server.h"
#include "log.h"
#include "runtime.h"
#include "service_loop_impl.h"
#include "sockets.h"
#include "wire.h"
#include "wkp_cor.h"

#include <zmq.hpp>

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace gorm::cor::rr {
namespace {

// Routing ids of our own clients: the process's identity and a counter. Names that begin with a
// zero byte were given by the transport, to peers that came without one.
constexpr std::size_t kRoutingIdBytes = sizeof(ProcessIdentity) + sizeof(std::uint32_t);

std::string IdentityOf(std::string_view routing_id) {
    const bool ours = routing_id.size() == kRoutingIdBytes && routing_id[0] != '\0';
    return ours ? std::string(routing_id.substr(0, sizeof(ProcessIdentity))) : std::string();
}

zmq::socket_t MakeRouter(zmq::context_t& context, const Address& address) {
    zmq::socket_t socket =
        MakeSocket(context, zmq::socket_type::router, kRequestQueue, kMaxRequestBytes);
    socket.set(zmq::sockopt::router_handover, true);
    socket.set(zmq::sockopt::backlog, kBacklog);
    // The clients send the heartbeats, and with them how long to wait for the next. For thousands
    // of connections a second one from here would be most of what this process does; the kernel
    // looks after clients that send none.
    socket.set(zmq::sockopt::heartbeat_ivl, 0);
    socket.set(zmq::sockopt::tcp_keepalive, 1);
    socket.set(zmq::sockopt::tcp_keepalive_idle, kKeepaliveIdleS);
    socket.set(zmq::sockopt::tcp_keepalive_intvl, kKeepaliveIntervalS);
    socket.set(zmq::sockopt::tcp_keepalive_cnt, kKeepaliveProbes);
    socket.set(zmq::sockopt::ipv6, address.ipv6);
    // The last answers still leave when the server goes.
    socket.set(zmq::sockopt::linger, 1000);
    return socket;
}

}  // namespace

/// Lives on the loop.
class Server::Impl {
public:
    Impl(PollLoop& loop, const Address& address, Service& service, std::size_t max_connections);
    ~Impl();

    PollLoop& loop;
    std::uint16_t port = 0;
    std::function<void(const Caller&)> on_disconnect;

    bool Connected(const std::string& identity) const { return connected_.count(identity) != 0; }
    std::size_t connections() const { return links_.size(); }

private:
    void TakeCalls();
    void TakeEvents();
    void Handle(std::vector<zmq::message_t>& frames);
    // One connection, known by the transport's descriptor: its end is told by that alone.
    struct Link {
        Caller caller;  // once it has sent a call
        bool refused = false;
    };
    Link* LinkOf(zmq::message_t& frame);
    void Introduce(Link& link, const Caller& caller);
    void End(int descriptor);
    std::string TooMany() const {
        return "there are already " + std::to_string(max_connections_) + " connections";
    }
    std::string Answer(const Caller& caller, std::string_view path, const Call& call);

    const std::string path_;
    Service& service_;
    zmq::socket_t socket_;
    Monitor monitor_;
    FaultLog faults_;
    const std::size_t max_connections_;
    std::map<int, Link> links_;             // by descriptor
    std::map<std::string, int> connected_;  // links that have sent a call, by identity
};

Server::Impl::Impl(PollLoop& service_loop, const Address& address, Service& service,
                   std::size_t max_connections)
    : loop(service_loop),
      path_(address.path),
      service_(service),
      socket_(MakeRouter(Runtime::Get().context(), address)),
      monitor_(Runtime::Get().context(), socket_,
               ZMQ_EVENT_HANDSHAKE_SUCCEEDED | ZMQ_EVENT_DISCONNECTED | ZMQ_EVENT_CLOSED |
                   ZMQ_EVENT_CLOSE_FAILED),
      faults_("message to " + address.text),
      max_connections_(max_connections) {
    port = Bind(socket_, address.endpoint, address.text);
    loop.Watch(socket_, [this] { TakeCalls(); });
    loop.Watch(monitor_.socket(), [this] { TakeEvents(); });
}

Server::Impl::~Impl() {
    loop.Unwatch(socket_);
    loop.Unwatch(monitor_.socket());
    Unbind(socket_, monitor_);
}

void Server::Impl::TakeEvents() {
    for (Monitor::Event event = monitor_.Next(); event.kind != 0; event = monitor_.Next()) {
        if (event.kind == ZMQ_EVENT_HANDSHAKE_SUCCEEDED) {
            End(event.descriptor);
            links_[event.descriptor].refused = links_.size() > max_connections_;
        } else if (event.kind == ZMQ_EVENT_DISCONNECTED) {
            End(event.descriptor);
        }
    }
}

void Server::Impl::End(int descriptor) {
    const auto found = links_.find(descriptor);
    if (found == links_.end()) {
        return;
    }
    const Caller caller = std::move(found->second.caller);
    links_.erase(found);
    if (caller.connection.empty()) {
        return;
    }
    if (--connected_[caller.identity] == 0) {
        connected_.erase(caller.identity);
    }
    if (on_disconnect) {
        on_disconnect(caller);
    }
}

// Null: the message was sent over a connection that has ended since.
Server::Impl::Link* Server::Impl::LinkOf(zmq::message_t& frame) {
    const int descriptor = zmq_msg_get(frame.handle(), ZMQ_SRCFD);
    auto found = links_.find(descriptor);
    if (found == links_.end()) {
        TakeEvents();
        found = links_.find(descriptor);
    }
    return found == links_.end() ? nullptr : &found->second;
}

void Server::Impl::Introduce(Link& link, const Caller& caller) {
    if (link.caller.connection.empty()) {
        link.caller = caller;
        ++connected_[caller.identity];
    }
}

void Server::Impl::TakeCalls() {
    // First the ends of connections: a descriptor may belong to somebody else by now.
    TakeEvents();
    std::vector<zmq::message_t> frames;
    for (int i = 0; i < kBatch && Receive(socket_, frames); ++i) {
        Handle(frames);
    }
}

void Server::Impl::Handle(std::vector<zmq::message_t>& frames) {
    const std::string peer(View(frames[0]));
    std::optional<Call> call;
    if (frames.size() == 3) {
        call = DecodeCall(View(frames[2]));
    }
    if (!call) {
        faults_.Count(peer, frames.size() == 3 ? "it is no request" : "it has not two frames");
        return;
    }
    const std::string_view path = View(frames[1]);
    if (path.size() > kMaxPathBytes) {  // an answer would repeat it
        faults_.Count(peer, "its path is too long");
        return;
    }
    const Caller caller{IdentityOf(peer), peer};
    Link* const link = LinkOf(frames[2]);
    if (link != nullptr) {
        Introduce(*link, caller);
    }
    const std::string answer = link != nullptr && link->refused
                                   ? EncodeError(call->id.value_or(0), TooMany())
                                   : Answer(caller, path, *call);
    if (!call->id) {
        return;
    }
    // A peer that has gone or takes no answers loses them; the loop waits for nobody.
    if (socket_.send(zmq::buffer(peer), zmq::send_flags::dontwait | zmq::send_flags::sndmore) &&
        socket_.send(zmq::buffer(path), zmq::send_flags::dontwait | zmq::send_flags::sndmore)) {
        socket_.send(zmq::buffer(answer), zmq::send_flags::dontwait);
    }
}

std::string Server::Impl::Answer(const Caller& caller, std::string_view path, const Call& call) {
    const std::uint32_t id = call.id.value_or(0);
    try {
        if (path != path_) {
            return EncodeError(id, "nothing is served at the path of the request");
        }
        std::string answer =
            EncodeResult(id, service_.Dispatch(caller, call.method, call.params()));
        if (answer.size() > kMaxReplyBytes) {
            // Sent, it would cost the client its link.
            return EncodeError(id, "the answer has " + std::to_string(answer.size()) +
                                       " bytes, at most " + std::to_string(kMaxReplyBytes) +
                                       " can be sent");
        }
        return answer;
    } catch (const std::exception& error) {
        return EncodeError(id, error.what());
    }
}

Server::Server(ServiceLoop& loop, const network::uri& uri, Service& service,
               std::size_t max_connections) {
    const Address address = Address::ToBind(uri, kRequestScheme);
    PollLoop& poll_loop = loop.impl().loop;
    poll_loop.Run(
        [&] { impl_ = std::make_unique<Impl>(poll_loop, address, service, max_connections); });
}

Server::~Server() {
    if (in_forked_child()) {
        static_cast<void>(impl_.release());  // closing the sockets would reach into the parent
        return;
    }
    impl_->loop.Run([this] { impl_.reset(); });
}

std::uint16_t Server::port() const {
    return impl_->port;
}

void Server::OnDisconnect(std::function<void(const Caller&)> callback) {
    impl_->loop.Run([&] { impl_->on_disconnect = std::move(callback); });
}

std::size_t Server::connections() const {
    return impl_->connections();
}

bool Server::Connected(const std::string& identity) const {
    return impl_->Connected(identity);
}

}  // namespace gorm::cor::rr
