#include "address.h"
#include "gorm/cor/process.h"
#include "gorm/cor/rr/server.h"
#include "limits.h"
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
    socket.set(zmq::sockopt::ipv6, address.ipv6);
    // The last answers still leave when the server goes.
    socket.set(zmq::sockopt::linger, 1000);
    return socket;
}

}  // namespace

/// Lives on the loop.
class Server::Impl {
public:
    Impl(PollLoop& loop, const Address& address, Service& service);
    ~Impl();

    PollLoop& loop;
    std::uint16_t port = 0;
    std::function<void(const Caller&)> on_disconnect;

    bool Connected(const std::string& identity) const { return connected_.count(identity) != 0; }

private:
    void TakeCalls();
    void TakeEvents();
    void Handle(std::vector<zmq::message_t>& frames);
    void NoteConnection(zmq::message_t& frame, const Caller& caller);
    void End(int descriptor);
    std::string Answer(const Caller& caller, std::string_view path, const Call& call);

    const std::string path_;
    Service& service_;
    zmq::socket_t socket_;
    Monitor monitor_;
    FaultLog faults_;
    // Who is behind a descriptor of the transport: it tells the end of a connection by that alone.
    std::map<int, Caller> callers_;
    std::map<std::string, int> connected_;  // connections by identity
};

Server::Impl::Impl(PollLoop& service_loop, const Address& address, Service& service)
    : loop(service_loop),
      path_(address.path),
      service_(service),
      socket_(MakeRouter(Runtime::Get().context(), address)),
      monitor_(Runtime::Get().context(), socket_,
               ZMQ_EVENT_DISCONNECTED | ZMQ_EVENT_CLOSED | ZMQ_EVENT_CLOSE_FAILED),
      faults_("message to " + address.text) {
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
        if (event.kind == ZMQ_EVENT_DISCONNECTED) {
            End(event.descriptor);
        }
    }
}

void Server::Impl::End(int descriptor) {
    const auto found = callers_.find(descriptor);
    if (found == callers_.end()) {
        return;
    }
    const Caller caller = std::move(found->second);
    callers_.erase(found);
    if (--connected_[caller.identity] == 0) {
        connected_.erase(caller.identity);
    }
    if (on_disconnect) {
        on_disconnect(caller);
    }
}

void Server::Impl::NoteConnection(zmq::message_t& frame, const Caller& caller) {
    const int descriptor = zmq_msg_get(frame.handle(), ZMQ_SRCFD);
    if (descriptor < 0) {
        return;
    }
    const auto found = callers_.find(descriptor);
    if (found != callers_.end() && found->second.connection == caller.connection) {
        return;
    }
    End(descriptor);
    callers_.emplace(descriptor, caller);
    ++connected_[caller.identity];
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
    const Caller caller{IdentityOf(peer), peer};
    NoteConnection(frames[2], caller);
    const std::string answer = Answer(caller, path, *call);
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

Server::Server(ServiceLoop& loop, const network::uri& uri, Service& service) {
    const Address address = Address::ToBind(uri, kRequestScheme);
    PollLoop& poll_loop = loop.impl().loop;
    poll_loop.Run([&] { impl_ = std::make_unique<Impl>(poll_loop, address, service); });
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

bool Server::Connected(const std::string& identity) const {
    return impl_->Connected(identity);
}

}  // namespace gorm::cor::rr
