#pragma once

#include "gorm/cor/curve.h"

#include <zmq.hpp>

#include <mutex>
#include <string>

namespace gorm::cor {

/// The keys of a server and the peers that may connect, under a name of their own.
/// Threads: any.
class CurveDomain {
public:
    /// Throws Error.
    CurveDomain(CurveKeys keys, AllowedKeys allowed);

    /// Makes the endpoints that the socket is bound to from now on ask for CURVE.
    void Secure(zmq::socket_t& socket) const;
    /// Makes those bound from now on accept every peer, as for a Unix socket. The authenticator is
    /// asked all the same: the transport has no way to take the domain back from a socket.
    static void AcceptPlain(zmq::socket_t& socket);

    void SetAllowed(AllowedKeys allowed) {
        const std::lock_guard lock(mutex_);
        allowed_ = std::move(allowed);
    }
    std::string NameOf(const std::string& public_key) const {
        const std::lock_guard lock(mutex_);
        const auto found = allowed_.find(public_key);
        return found == allowed_.end() ? std::string() : found->second;
    }
    const std::string& name() const { return name_; }

private:
    const CurveKeys keys_;
    const std::string name_;  // by which the transport asks for our peers
    mutable std::mutex mutex_;
    AllowedKeys allowed_;  // under the mutex
};

}  // namespace gorm::cor
