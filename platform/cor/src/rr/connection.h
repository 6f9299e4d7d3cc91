#pragma once

#include "kvo/os/thread_bound.h"
#include "rr/listener_strand.h"
#include "rr/pending_call.h"
#include "transport/address.h"
#include "transport/log.h"
#include "transport/poll_loop.h"
#include "transport/sockets.h"

#include <boost/thread/future.hpp>
#include <zmq.hpp>

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace gorm::cor::rr {

class Connection;

/// One client as its connection sees it.
struct ClientEnd {
    explicit ClientEnd(Address client_address) : address(std::move(client_address)) {}

    const Address address;
    ListenerStrand strand;  // any thread

    // I/O thread only
    Connection* connection = nullptr;  // null once the client is closed
    bool was_connected = false;        // requests wait for the first connection, not for later ones
    std::vector<std::shared_ptr<PendingCall>> waiting;  // for the first connection
    std::vector<boost::promise<void>> connecting;
};

/// The link of this process to one server, shared by its clients. Goes over the server's Unix
/// socket where it has one and over TCP else, and chooses anew whenever it is lost. I/O thread
/// only.
class Connection {
public:
    /// Begins to connect. @param routing_id by which the server knows this connection.
    Connection(zmq::context_t& context, PollLoop& loop, const Address& address,
               const std::string& routing_id);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection();

    void Attach(const std::shared_ptr<ClientEnd>& end);
    /// Fails all that the client has under way.
    void Detach(const std::shared_ptr<ClientEnd>& end);
    bool has_clients() const { return !ends_.empty(); }
    bool connected() const { return connected_; }
    /// Why the last attempt to connect failed, if that is known, as the end of a message.
    std::string FaultSuffix() const { return fault_.empty() ? fault_ : ": " + fault_; }

    void Connect(ClientEnd& end, boost::promise<void> promise);
    void Request(const std::shared_ptr<ClientEnd>& end, const std::shared_ptr<PendingCall>& call);
    /// @return false: it was dropped.
    [[nodiscard]] bool Notify(const ClientEnd& end, std::string_view message);
    /// Gives up a call. @return true: it still waited for the first connection.
    bool Forget(ClientEnd& end, const std::shared_ptr<PendingCall>& call);

private:
    struct Sent {
        std::shared_ptr<PendingCall> call;
        const ClientEnd* end;
    };
    // A connection that has been begun, over one of the server's endpoints.
    struct Link {
        Link(zmq::context_t& context, const Address& address, const std::string& to,
             const std::string& routing_id);
        const std::string endpoint;
        zmq::socket_t socket;
        Monitor monitor;
    };
    std::string ChooseEndpoint() const;
    void OpenLink(const std::string& endpoint);
    void CloseLink();
    void AwaitConnection();
    void Reconsider();
    void OnRefused(const Monitor::Event& event);
    void TakeReplies(int at_most);
    void TakeEvents();
    void OnConnected();
    void OnDisconnected();
    bool Send(const std::string& path, std::string_view message);
    void SendRequest(const ClientEnd& end, const std::shared_ptr<PendingCall>& call);
    void SendUnsent();

    const kvo::os::ThreadBound thread_;
    zmq::context_t& context_;
    PollLoop& loop_;
    const Address address_;
    const std::string routing_id_;
    std::unique_ptr<Link> link_;
    bool connected_ = false;
    bool given_up_ = false;  // the transport, on this link
    std::string fault_;      // of the last handshake; empty: none is known
    bool awaiting_ = false;  // Reconsider() is due some time
    int rounds_ = 0;         // how often it has found no connection since the last one
    int local_rounds_ = 0;   // of these: though there was a Unix socket
    std::vector<std::shared_ptr<ClientEnd>> ends_;
    std::map<std::uint32_t, Sent> sent_;  // by the id of the call
    std::deque<std::uint32_t> unsent_;    // of these, oldest first: there was no room
    FaultLog faults_;
    const std::shared_ptr<int> alive_ = std::make_shared<int>();  // for timers that outlive us
};

}  // namespace gorm::cor::rr
