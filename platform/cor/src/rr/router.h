#pragma once

#include "gorm/cor/curve.h"
#include "gorm/cor/peer.h"
#include "gorm/cor/rr/service.h"
#include "kvo/os/thread_bound.h"
#include "rr/wire.h"
#include "transport/log.h"
#include "transport/poll_loop.h"
#include "transport/sockets.h"

#include <zmq.hpp>

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace gorm::cor::rr {

/// Answers the calls of a router and counts its connections. On the loop.
class RouterUser {
public:
    virtual ~RouterUser() = default;
    /// The first call of a connection has come. @return false: none of them may be answered.
    [[nodiscard]] virtual bool OnConnected(const Caller& caller) = 0;
    /// A connection that has begun is gone.
    virtual void OnDisconnected(const Caller& caller) = 0;
    virtual Deferred<std::string> Answer(const Caller& caller, std::string_view path,
                                         const Call& call) = 0;
    virtual std::string RejectTooMany(const Call& call) const = 0;
};

/// One bound socket of a server and the connections on it. What a peer can prove differs between
/// TCP and the Unix socket, so each has a router of its own. The loop only.
class Router {
public:
    struct Settings {
        std::string endpoint;                // to be bound
        std::string text;                    // of the address, for messages
        bool local = false;                  // a Unix socket
        std::shared_ptr<CurveServer> curve;  // null: peers need no key
        bool this_host = false;
        bool ipv6 = false;
        int max_pending_answers = 1000;  // of one connection
    };
    /// Binds at once; throws BindError.
    Router(PollLoop& loop, zmq::context_t& context, const Settings& settings, RouterUser& user);
    Router(const Router&) = delete;
    Router& operator=(const Router&) = delete;
    ~Router();

    /// Takes no new connections; those that are there stay.
    void StopListening();

    const std::string& endpoint() const { return endpoint_; }  // as it was bound

private:
    // One connection, known by the transport's descriptor, which alone reports its end.
    struct Link {
        Caller caller;        // once it has sent a call
        std::string address;  // of the other end, where keys are asked for
        bool refused = false;
    };
    void TakeCalls();
    void TakeEvents();
    void Handle(std::vector<zmq::message_t>& frames);
    Peer PeerOf(zmq::message_t& frame) const;
    Link* LinkOf(zmq::message_t& frame);
    void Introduce(Link& link, const Caller& caller);
    void End(int descriptor);
    void LogRefused(const Link& link);
    void Send(const std::string& peer, const std::string& path, const std::string& answer);

    const kvo::os::ThreadBound thread_;
    PollLoop& loop_;
    const Settings settings_;
    RouterUser& user_;
    zmq::socket_t socket_;
    Monitor monitor_;
    FaultLog faults_;
    std::string endpoint_;
    std::map<int, Link> links_;              // by descriptor
    const char* handshake_fault_ = nullptr;  // reported before the end of its connection
    // For answers that come later: null once the router is gone.
    const std::shared_ptr<Router*> self_ = std::make_shared<Router*>(this);
};

}  // namespace gorm::cor::rr
