#include "rr/connection.h"

#include "curve/curve_client.h"
#include "gorm/cor/errors.h"
#include "local/runtime_directory.h"
#include "rr/wire.h"
#include "transport/bounds.h"

#include <algorithm>
#include <utility>

namespace gorm::cor::rr {
namespace {

constexpr std::chrono::milliseconds kReconsider{200};
// A Unix socket that accepts no connection may not keep us from TCP, nor the other way round.
constexpr int kRoundsPerEndpoint = 5;

zmq::socket_t MakeDealer(zmq::context_t& context, const Address& address,
                         const std::string& routing_id) {
    zmq::socket_t socket =
        MakeSocket(context, zmq::socket_type::dealer, kRequestQueue, kMaxReplyBytes);
    SetReconnect(socket);
    socket.set(zmq::sockopt::routing_id, routing_id);
    // Nothing is sent before the connection stands, and a link is given up with its connection. So
    // nothing is queued for a peer that is not there, without the option of that name: with it, the
    // transport (4.3.4) ends the process when a connection is lost between two frames of a reply.
    socket.set(zmq::sockopt::ipv6, address.ipv6);
    return socket;
}

Outcome Lost(std::string reason) {
    return {Outcome::Kind::kConnectionLost, std::move(reason)};
}

}  // namespace

Connection::Link::Link(zmq::context_t& context, const Address& address, const std::string& way,
                       const std::string& routing_id)
    : endpoint(way),
      socket(MakeDealer(context, address, routing_id)),
      monitor(context, socket,
              ZMQ_EVENT_HANDSHAKE_SUCCEEDED | ZMQ_EVENT_DISCONNECTED |
                  ZMQ_EVENT_HANDSHAKE_FAILED_NO_DETAIL | ZMQ_EVENT_HANDSHAKE_FAILED_PROTOCOL |
                  ZMQ_EVENT_HANDSHAKE_FAILED_AUTH) {
    if (way == address.endpoint && address.curve != nullptr) {
        address.curve->Secure(socket);
    }
    try {
        socket.connect(way);
    } catch (const zmq::error_t& error) {
        throw Error("\"" + address.text + "\" names no usable address: " + error.what());
    }
}

Connection::Connection(zmq::context_t& context, PollLoop& loop, const Address& address,
                       const std::string& routing_id)
    : context_(context),
      loop_(loop),
      address_(address),
      routing_id_(routing_id),
      faults_("message from " + address.endpoint) {
    OpenLink(ChooseEndpoint());
    AwaitConnection();
}

Connection::~Connection() {
    CloseLink();
}

std::string Connection::ChooseEndpoint() const {
    if (!address_.PrefersLocal() || (local_rounds_ / kRoundsPerEndpoint) % 2 != 0) {
        return address_.endpoint;
    }
    const std::string local = FindLocalEndpoint(address_.port);
    return local.empty() ? address_.endpoint : local;
}

void Connection::OpenLink(const std::string& way) {
    CloseLink();
    given_up_ = false;
    link_ = std::make_unique<Link>(context_, address_, way, routing_id_);
    loop_.Watch(link_->socket, [this] { TakeReplies(kBatch); });
    loop_.Watch(link_->monitor.socket(), [this] { TakeEvents(); });
}

void Connection::CloseLink() {
    if (link_ != nullptr) {
        loop_.Unwatch(link_->socket);
        loop_.Unwatch(link_->monitor.socket());
        link_.reset();
    }
}

// The transport itself tries one way again and again; which one that should be may change.
void Connection::AwaitConnection() {
    if (awaiting_ || (!address_.PrefersLocal() && !given_up_)) {
        return;
    }
    awaiting_ = true;
    loop_.After(kReconsider, [this, alive = std::weak_ptr<int>(alive_)] {
        if (!alive.expired()) {
            awaiting_ = false;
            Reconsider();
        }
    });
}

void Connection::Reconsider() {
    TakeEvents();
    if (connected_) {
        return;
    }
    ++rounds_;
    // While the server is away there is none, and TCP must not have its turn when it comes back.
    if (address_.PrefersLocal() && !FindLocalEndpoint(address_.port).empty()) {
        ++local_rounds_;
    }
    // After a refusal the transport does not try again; what was refused may be allowed some day.
    const std::string way = ChooseEndpoint();
    if (way != link_->endpoint || (given_up_ && rounds_ % kRoundsPerEndpoint == 0)) {
        OpenLink(way);
    }
    AwaitConnection();
}

void Connection::OnRefused(const Monitor::Event& event) {
    const bool secured = address_.curve != nullptr && link_->endpoint == address_.endpoint;
    given_up_ = event.kind != ZMQ_EVENT_HANDSHAKE_FAILED_NO_DETAIL;
    if (event.kind == ZMQ_EVENT_HANDSHAKE_FAILED_AUTH) {
        fault_ = "the server does not allow the public key of this process";
        if (secured) {
            fault_ += ", " + address_.curve->keys.public_key;
        }
    } else if (given_up_ && event.value == ZMQ_PROTOCOL_ERROR_ZMTP_MECHANISM_MISMATCH) {
        fault_ = secured ? "the server does not use CURVE, but this process has a key for it"
                         : std::string("the server asks for CURVE, and the file that ") +
                               kPropertiesVariable + " names has no key for it";
    } else if (secured) {
        fault_ =
            "the server ended the handshake; is " + address_.curve->server_key + " its public key?";
    } else {
        // Also what is seen of a server that had gone by the time its reason was looked for.
        fault_ = std::string(
                     "the server ended the handshake, as when the server asks for CURVE; the "
                     "file that ") +
                 kPropertiesVariable + " names has no key for it";
    }
    AwaitConnection();
}

void Connection::Attach(const std::shared_ptr<ClientEnd>& end) {
    thread_.here();
    ends_.push_back(end);
    end->connection = this;
    end->was_connected = connected_;
}

void Connection::Detach(const std::shared_ptr<ClientEnd>& end) {
    thread_.here();
    end->connection = nullptr;
    std::erase(ends_, end);
    for (const auto& call : std::exchange(end->waiting, {})) {
        call->Complete(Lost("the client was closed"));
    }
    std::erase_if(sent_, [&end](const auto& entry) {
        if (entry.second.end != end.get()) {
            return false;
        }
        entry.second.call->Complete(Lost("the client was closed"));
        return true;
    });
    for (auto& promise : std::exchange(end->connecting, {})) {
        promise.set_exception(
            ConnectionLost("connection to " + end->address.text + ": the client was closed"));
    }
}

void Connection::Connect(ClientEnd& end, boost::promise<void> promise) {
    if (connected_) {
        promise.set_value();
    } else {
        end.connecting.push_back(std::move(promise));
    }
}

void Connection::Request(const std::shared_ptr<ClientEnd>& end,
                         const std::shared_ptr<PendingCall>& call) {
    thread_.here();
    if (connected_) {
        SendRequest(*end, call);
    } else if (end->was_connected) {
        call->Complete(Lost("there is no connection" + FaultSuffix()));
    } else {
        end->waiting.push_back(call);
    }
}

bool Connection::Notify(const ClientEnd& end, std::string_view message) {
    thread_.here();
    return connected_ && unsent_.empty() && Send(end.address.path, message);
}

bool Connection::Forget(ClientEnd& end, const std::shared_ptr<PendingCall>& call) {
    thread_.here();
    sent_.erase(call->id);
    return std::erase(end.waiting, call) != 0;
}

bool Connection::Send(const std::string& path, std::string_view message) {
    // The second frame of a message always finds room when the first one did.
    return link_->socket.send(zmq::buffer(path),
                              zmq::send_flags::dontwait | zmq::send_flags::sndmore) &&
           link_->socket.send(zmq::buffer(message), zmq::send_flags::dontwait);
}

void Connection::SendRequest(const ClientEnd& end, const std::shared_ptr<PendingCall>& call) {
    sent_[call->id] = {call, &end};
    unsent_.push_back(call->id);
    SendUnsent();
}

// A server that is slower than our one-way calls leaves no room for a while; requests wait for it
// within their reply time, and one-way calls let them pass.
void Connection::SendUnsent() {
    while (!unsent_.empty()) {
        const auto found = sent_.find(unsent_.front());  // not there: the caller has given up
        if (found != sent_.end() &&
            !Send(found->second.end->address.path, found->second.call->message)) {
            loop_.AwaitRoom(link_->socket, [this] { SendUnsent(); });
            return;
        }
        unsent_.pop_front();
    }
}

void Connection::TakeReplies(int at_most) {
    thread_.here();
    std::vector<zmq::message_t> frames;
    for (int i = 0; i < at_most && Receive(link_->socket, frames); ++i) {
        std::optional<Reply> reply;
        if (frames.size() == 2) {
            reply = DecodeReply(View(frames[1]));
        }
        if (!reply) {
            faults_.LogDropped("", "it is no reply");
            continue;
        }
        // An id that is not there: the caller's time has run out.
        const auto found = sent_.find(reply->id);
        if (found == sent_.end()) {
            continue;
        }
        if (View(frames[0]) != found->second.end->address.path) {
            faults_.LogDropped("", "it is a reply for another path");
            continue;
        }
        const std::shared_ptr<PendingCall> call = std::move(found->second.call);
        sent_.erase(found);
        call->Complete({reply->failed ? Outcome::Kind::kRemoteError : Outcome::Kind::kResult,
                        std::move(reply->content)});
    }
}

void Connection::TakeEvents() {
    thread_.here();
    for (Monitor::Event event = link_->monitor.Next(); event.kind != 0;
         event = link_->monitor.Next()) {
        if (event.kind == ZMQ_EVENT_HANDSHAKE_SUCCEEDED && !connected_) {
            if (const std::string way = ChooseEndpoint(); way != link_->endpoint) {
                OpenLink(way);  // the Unix socket has come since; this link's events are over
                return;
            }
            OnConnected();
        } else if (event.kind == ZMQ_EVENT_DISCONNECTED) {
            if (connected_) {
                OnDisconnected();
            }
        } else if (!connected_) {
            OnRefused(event);
        }
    }
}

void Connection::OnConnected() {
    // The new pipe was announced to the socket before this event came; asking for the events makes
    // the socket look at it, so that the first request finds it.
    static_cast<void>(link_->socket.get(zmq::sockopt::events));
    connected_ = true;
    rounds_ = 0;
    local_rounds_ = 0;
    fault_.clear();
    // Before any other sign of it: a listener that is registered then has no change to hear of.
    for (const auto& end : ends_) {
        end->strand.Deliver(true);
    }
    for (const auto& end : ends_) {
        end->was_connected = true;
        for (const auto& call : std::exchange(end->waiting, {})) {
            SendRequest(*end, call);
        }
        for (auto& promise : std::exchange(end->connecting, {})) {
            promise.set_value();
        }
    }
}

void Connection::OnDisconnected() {
    TakeReplies(kRequestQueue);  // what has been answered counts
    connected_ = false;
    unsent_.clear();
    for (auto& [id, sent] : std::exchange(sent_, {})) {
        sent.call->Complete(Lost("the connection was lost"));
    }
    for (const auto& end : ends_) {
        end->strand.Deliver(false);
    }
    OpenLink(ChooseEndpoint());
    AwaitConnection();
}

}  // namespace gorm::cor::rr
