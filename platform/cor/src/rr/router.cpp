#include "rr/router.h"

#include "curve/curve_domain.h"
#include "kvo/os/process_identity.h"
#include "local/local_peer.h"
#include "transport/bounds.h"

#include <array>
#include <cstdint>
#include <netdb.h>
#include <optional>
#include <sys/socket.h>
#include <utility>

namespace gorm::cor::rr {
namespace {

// Routing ids of our own clients: the process's identity and a counter. Names that begin with a
// zero byte were given by the transport, to peers that came without one.
constexpr std::size_t kRoutingIdBytes = sizeof(kvo::os::ProcessIdentity) + sizeof(std::uint32_t);

std::string IdentityOf(std::string_view routing_id) {
    const bool ours = routing_id.size() == kRoutingIdBytes && routing_id[0] != '\0';
    return ours ? std::string(routing_id.substr(0, sizeof(kvo::os::ProcessIdentity)))
                : std::string();
}

zmq::socket_t MakeRouter(zmq::context_t& context, const Router::Settings& settings) {
    zmq::socket_t socket =
        MakeSocket(context, zmq::socket_type::router, kRequestQueue, kMaxRequestBytes);
    socket.set(zmq::sockopt::sndhwm, settings.max_pending_answers);
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
    socket.set(zmq::sockopt::ipv6, settings.ipv6);
    // The last answers still leave when the server goes.
    socket.set(zmq::sockopt::linger, 1000);
    if (settings.curve != nullptr) {
        settings.curve->domain().Secure(socket);
    }
    return socket;
}

std::string AddressOf(int descriptor) {
    sockaddr_storage address{};
    socklen_t bytes = sizeof address;
    std::array<char, NI_MAXHOST> host{};
    const bool known =
        ::getpeername(descriptor, reinterpret_cast<sockaddr*>(&address), &bytes) == 0 &&
        ::getnameinfo(reinterpret_cast<sockaddr*>(&address), bytes, host.data(), host.size(),
                      nullptr, 0, NI_NUMERICHOST) == 0;
    return known ? host.data() : "unknown";
}

std::string_view Property(zmq::message_t& frame, const char* name) {
    const char* const value = zmq_msg_gets(frame.handle(), name);
    return value == nullptr ? std::string_view() : std::string_view(value);
}

}  // namespace

Router::Router(PollLoop& loop, zmq::context_t& context, const Settings& settings, RouterUser& user)
    : loop_(loop),
      settings_(settings),
      user_(user),
      socket_(MakeRouter(context, settings)),
      monitor_(context, socket_,
               ZMQ_EVENT_ACCEPTED | ZMQ_EVENT_DISCONNECTED | ZMQ_EVENT_CLOSED |
                   ZMQ_EVENT_CLOSE_FAILED | ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL),
      faults_("message to " + settings.text) {
    endpoint_ = Bind(socket_, settings.endpoint, settings.text);
    loop_.Watch(socket_, [this] { TakeCalls(); });
    loop_.Watch(monitor_.socket(), [this] { TakeEvents(); });
}

Router::~Router() {
    loop_.Unwatch(socket_);
    loop_.Unwatch(monitor_.socket());
    StopListening();
}

void Router::StopListening() {
    Unbind(socket_, monitor_, std::exchange(endpoint_, {}));
}

void Router::TakeEvents() {
    thread_.here();
    for (Monitor::Event event = monitor_.Next(); event.kind != 0; event = monitor_.Next()) {
        if (event.kind == ZMQ_EVENT_ACCEPTED) {
            End(event.value);
            Link& link = links_[event.value];
            if (settings_.curve != nullptr) {
                link.address = AddressOf(event.value);
            }
        } else if (event.kind == ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL) {
            handshake_fault_ = event.value == ZMQ_PROTOCOL_ERROR_ZMTP_MECHANISM_MISMATCH
                                   ? "it does not use CURVE"
                                   : "it has another key for this server, or no key";
        } else if (event.kind == ZMQ_EVENT_DISCONNECTED) {
            End(event.value);
        }
    }
}

void Router::End(int descriptor) {
    const auto found = links_.find(descriptor);
    if (found == links_.end()) {
        return;
    }
    const Caller caller = std::move(found->second.caller);
    if (caller.connection.empty()) {
        LogRefused(found->second);
    }
    links_.erase(found);
    if (!caller.connection.empty()) {
        user_.OnDisconnected(caller);
    }
}

// The transport reports the fault and then the end, but not of which connection the fault is; with
// several at once the line may name the wrong one.
void Router::LogRefused(const Link& link) {
    if (const char* const fault = std::exchange(handshake_fault_, nullptr);
        fault != nullptr && settings_.curve != nullptr) {
        faults_.Log(link.address,
                    "peer " + link.address + " refused at " + settings_.text + ": " + fault);
    }
}

// Null: the message was sent over a connection that has ended since.
Router::Link* Router::LinkOf(zmq::message_t& frame) {
    const int descriptor = zmq_msg_get(frame.handle(), ZMQ_SRCFD);
    auto found = links_.find(descriptor);
    if (found == links_.end()) {
        TakeEvents();
        found = links_.find(descriptor);
    }
    return found == links_.end() ? nullptr : &found->second;
}

void Router::Introduce(Link& link, const Caller& caller) {
    if (link.caller.connection == caller.connection) {
        return;
    }
    if (!link.caller.connection.empty()) {
        // The last message of one that had the descriptor before came after its end was reported.
        user_.OnDisconnected(link.caller);
    }
    link.caller = caller;
    link.refused = !user_.OnConnected(caller);
}

// A peer can claim any property in its handshake, but those that the transport sets itself go
// before, and over a Unix socket it always knows the other end.
Peer Router::PeerOf(zmq::message_t& frame) const {
    if (settings_.local) {
        if (const auto peer = ParseLocalPeer(Property(frame, "Peer-Address"))) {
            return *peer;
        }
        return AnonymousPeer{false};
    }
    // The name that the authenticator gave it.
    return settings_.curve != nullptr ? Peer(KeyPeer{std::string(Property(frame, "User-Id"))})
                                      : Peer(AnonymousPeer{settings_.this_host});
}

void Router::TakeCalls() {
    thread_.here();
    // First the ends of connections: a descriptor may belong to another connection by now.
    TakeEvents();
    std::vector<zmq::message_t> frames;
    for (int i = 0; i < kBatch && Receive(socket_, frames); ++i) {
        Handle(frames);
    }
}

void Router::Handle(std::vector<zmq::message_t>& frames) {
    const std::string peer(View(frames[0]));
    std::optional<Call> call;
    if (frames.size() == 3) {
        call = DecodeCall(View(frames[2]));
    }
    if (!call) {
        faults_.LogDropped(peer, frames.size() == 3 ? "it is no request" : "it has not two frames");
        return;
    }
    const std::string_view path = View(frames[1]);
    if (path.size() > kMaxPathBytes) {  // an answer would repeat it
        faults_.LogDropped(peer, "its path is too long");
        return;
    }
    // Each socket gives its peers names of its own, which may be the same.
    const Caller caller{IdentityOf(peer), (settings_.local ? 'L' : 'T') + peer, PeerOf(frames[2])};
    Link* const link = LinkOf(frames[2]);
    if (link != nullptr) {
        Introduce(*link, caller);
    }
    const Deferred<std::string> answer = link != nullptr && link->refused
                                             ? user_.RejectTooMany(*call)
                                             : user_.Answer(caller, path, *call);
    if (!call->id) {
        return;
    }
    answer.Then([router = std::weak_ptr(self_), peer,
                 at = std::string(path)](const Result<std::string>& outcome) {
        if (const auto self = router.lock(); self != nullptr && outcome.value) {
            (*self)->Send(peer, at, *outcome.value);
        }
    });
}

// A peer that has gone or takes no answers loses them; the loop does not wait.
void Router::Send(const std::string& peer, const std::string& path, const std::string& answer) {
    thread_.here();
    if (socket_.send(zmq::buffer(peer), zmq::send_flags::dontwait | zmq::send_flags::sndmore) &&
        socket_.send(zmq::buffer(path), zmq::send_flags::dontwait | zmq::send_flags::sndmore)) {
        socket_.send(zmq::buffer(answer), zmq::send_flags::dontwait);
    }
}

}  // namespace gorm::cor::rr
