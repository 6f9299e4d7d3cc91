#include "curve/curve_domain.h"

#include "gorm/cor/errors.h"

#include <atomic>
#include <utility>

namespace gorm::cor {
namespace {

std::string NewName() {
    static std::atomic<unsigned> count{0};
    // relaxed: only has to be another number each time.
    return "curve-" + std::to_string(count.fetch_add(1, std::memory_order_relaxed));
}

}  // namespace

CurveDomain::CurveDomain(CurveKeys keys, AllowedKeys allowed)
    : keys_(std::move(keys)), name_(NewName()), allowed_(std::move(allowed)) {
    if (zmq_has("curve") == 0) {
        throw Error("the installed libzmq knows no CURVE");
    }
}

void CurveDomain::Secure(zmq::socket_t& socket) const {
    socket.set(zmq::sockopt::curve_server, true);
    socket.set(zmq::sockopt::curve_secretkey, keys_.secret_key);
    // The transport asks about each peer as long as an authenticator answers, and ours exists
    // before each server and stays; the option that makes the transport insist is none of its
    // stable ones yet. A peer that was not asked about would have no name, and such a peer has no
    // right.
    socket.set(zmq::sockopt::zap_domain, name_);
}

void CurveDomain::AcceptPlain(zmq::socket_t& socket) {
    socket.set(zmq::sockopt::curve_server, false);
}

}  // namespace gorm::cor
