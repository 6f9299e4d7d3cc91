#pragma once

#include "curve/curve_domain.h"
#include "kvo/os/thread_bound.h"
#include "transport/log.h"
#include "transport/poll_loop.h"

#include <zmq.hpp>

#include <map>
#include <string>
#include <vector>

namespace gorm::cor {

/// Tells the transport which peers of this process's CURVE servers may connect (ZAP, ZeroMQ RFC
/// 27). The transport has room for one in a process. Threads: any.
class Authenticator {
public:
    /// Starts its thread at the first use. Never destroyed.
    static Authenticator& Get();

    /// @param domain must be removed before it goes.
    void Add(const CurveDomain& domain);
    void Remove(const CurveDomain& domain);

private:
    explicit Authenticator(zmq::context_t& context);
    void Answer();
    /// @param user by which its servers know the peer.
    bool IsAllowed(const std::vector<zmq::message_t>& request, std::string& user);

    // Its thread only
    const kvo::os::ThreadBound thread_;
    std::map<std::string, const CurveDomain*> domains_;  // by name
    zmq::socket_t socket_;
    FaultLog refusals_;

    PollLoop loop_{"cor-auth"};  // last: its thread uses all of the above
};

}  // namespace gorm::cor
