#pragma once

#include "rr/connection.h"
#include "transport/poll_loop.h"

#include <zmq.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace gorm::cor::rr {

/// All connections of this process to servers, and the I/O thread that serves them.
/// Threads: any.
class ClientHub {
public:
    explicit ClientHub(zmq::context_t& context);

    /// Joins the client to the connection to its address, which is made when there is none. Throws
    /// Error.
    void Open(const std::shared_ptr<ClientEnd>& end);
    /// Fails all that the client has under way; the last client ends the connection.
    void Close(const std::shared_ptr<ClientEnd>& end);

    PollLoop& loop() { return loop_; }

private:
    std::unique_ptr<Connection> MakeConnection(const Address& address);

    zmq::context_t& context_;

    // I/O thread only
    std::map<std::string, std::unique_ptr<Connection>> connections_;  // by endpoint and keys
    std::uint32_t made_ = 0;

    PollLoop loop_{"cor-io"};  // last: its thread uses all of the above
};

}  // namespace gorm::cor::rr
