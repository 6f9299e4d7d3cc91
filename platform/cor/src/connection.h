#pragma once

#include "address.h"
#include "listener_strand.h"
#include "log.h"
#include "pending_call.h"
#include "poll_loop.h"
#include "sockets.h"

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

/// The link of this process to one server, shared by its clients. I/O thread only.
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

    void Connect(ClientEnd& end, boost::promise<void> promise);
    void Request(const std::shared_ptr<ClientEnd>& end, const std::shared_ptr<PendingCall>& call);
    /// @return false: it was dropped.
    bool Notify(const ClientEnd& end, std::string_view message);
    /// Gives up a call. @return true: it still waited for the first connection.
    bool Forget(ClientEnd& end, const std::shared_ptr<PendingCall>& call);

private:
    struct Sent {
        std::shared_ptr<PendingCall> call;
        const ClientEnd* end;
    };
    void TakeReplies(int at_most);
    void TakeEvents();
    void Up();
    void Down();
    bool Send(const std::string& path, std::string_view message);
    void SendRequest(const ClientEnd& end, const std::shared_ptr<PendingCall>& call);
    void SendUnsent();

    PollLoop& loop_;
    zmq::socket_t socket_;
    Monitor monitor_;
    bool connected_ = false;
    std::vector<std::shared_ptr<ClientEnd>> ends_;
    std::map<std::uint32_t, Sent> sent_;  // by the id of the call
    std::deque<std::uint32_t> unsent_;    // of these, oldest first: there was no room
    FaultLog faults_;
};

}  // namespace gorm::cor::rr
