#include "connection.h"

#include "bounds.h"
#include "gorm/cor/errors.h"
#include "wire.h"

#include <algorithm>
#include <utility>

namespace gorm::cor::rr {
namespace {

zmq::socket_t MakeDealer(zmq::context_t& context, const Address& address,
                         const std::string& routing_id) {
    zmq::socket_t socket =
        MakeSocket(context, zmq::socket_type::dealer, kRequestQueue, kMaxReplyBytes);
    SetReconnect(socket);
    socket.set(zmq::sockopt::routing_id, routing_id);
    socket.set(zmq::sockopt::immediate, true);  // nothing is queued for a peer that is not there
    socket.set(zmq::sockopt::ipv6, address.ipv6);
    return socket;
}

Outcome Lost(std::string reason) {
    return {Outcome::Kind::kConnectionLost, std::move(reason)};
}

}  // namespace

Connection::Connection(zmq::context_t& context, PollLoop& loop, const Address& address,
                       const std::string& routing_id)
    : loop_(loop),
      socket_(MakeDealer(context, address, routing_id)),
      monitor_(context, socket_, ZMQ_EVENT_HANDSHAKE_SUCCEEDED | ZMQ_EVENT_DISCONNECTED),
      faults_("message from " + address.endpoint) {
    try {
        socket_.connect(address.endpoint);
    } catch (const zmq::error_t& error) {
        throw Error("\"" + address.text + "\" names no usable address: " + error.what());
    }
    loop_.Watch(socket_, [this] { TakeReplies(kBatch); });
    loop_.Watch(monitor_.socket(), [this] { TakeEvents(); });
}

Connection::~Connection() {
    loop_.Unwatch(socket_);
    loop_.Unwatch(monitor_.socket());
}

void Connection::Attach(const std::shared_ptr<ClientEnd>& end) {
    ends_.push_back(end);
    end->connection = this;
    end->was_connected = connected_;
}

void Connection::Detach(const std::shared_ptr<ClientEnd>& end) {
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
    if (connected_) {
        SendRequest(*end, call);
    } else if (end->was_connected) {
        call->Complete(Lost("there is no connection"));
    } else {
        end->waiting.push_back(call);
    }
}

bool Connection::Notify(const ClientEnd& end, std::string_view message) {
    return connected_ && unsent_.empty() && Send(end.address.path, message);
}

bool Connection::Forget(ClientEnd& end, const std::shared_ptr<PendingCall>& call) {
    sent_.erase(call->id);
    return std::erase(end.waiting, call) != 0;
}

bool Connection::Send(const std::string& path, std::string_view message) {
    // The second frame of a message always finds room when the first one did.
    return socket_.send(zmq::buffer(path), zmq::send_flags::dontwait | zmq::send_flags::sndmore) &&
           socket_.send(zmq::buffer(message), zmq::send_flags::dontwait);
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
            loop_.AwaitRoom(socket_, [this] { SendUnsent(); });
            return;
        }
        unsent_.pop_front();
    }
}

void Connection::TakeReplies(int at_most) {
    std::vector<zmq::message_t> frames;
    for (int i = 0; i < at_most && Receive(socket_, frames); ++i) {
        std::optional<Reply> reply;
        if (frames.size() == 2) {
            reply = DecodeReply(View(frames[1]));
        }
        if (!reply) {
            faults_.Count("", "it is no reply");
            continue;
        }
        // An id that is not there: the caller's time has run out.
        const auto found = sent_.find(reply->id);
        if (found == sent_.end()) {
            continue;
        }
        if (View(frames[0]) != found->second.end->address.path) {
            faults_.Count("", "it is a reply for another path");
            continue;
        }
        const std::shared_ptr<PendingCall> call = std::move(found->second.call);
        sent_.erase(found);
        call->Complete({reply->failed ? Outcome::Kind::kRemoteError : Outcome::Kind::kResult,
                        std::move(reply->content)});
    }
}

void Connection::TakeEvents() {
    for (int event = monitor_.Next().kind; event != 0; event = monitor_.Next().kind) {
        if (event == ZMQ_EVENT_HANDSHAKE_SUCCEEDED && !connected_) {
            Up();
        } else if (event == ZMQ_EVENT_DISCONNECTED && connected_) {
            Down();
        }
    }
}

void Connection::Up() {
    // The new pipe was announced to the socket before this event came; asking for the events makes
    // the socket look at it, so that the first request finds it.
    static_cast<void>(socket_.get(zmq::sockopt::events));
    connected_ = true;
    // Before anybody learns of it otherwise: who registers a listener then has nothing to hear.
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

void Connection::Down() {
    TakeReplies(kRequestQueue);  // what has been answered counts
    connected_ = false;
    unsent_.clear();
    for (auto& [id, sent] : std::exchange(sent_, {})) {
        sent.call->Complete(Lost("the connection was lost"));
    }
    for (const auto& end : ends_) {
        end->strand.Deliver(false);
    }
}

}  // namespace gorm::cor::rr
