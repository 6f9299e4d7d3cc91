#include "curve/curve_server.h"

#include "gorm/cor/errors.h"
#include "kvo/os/fork_guard.h"
#include "runtime/runtime.h"

#include <atomic>
#include <utility>

namespace gorm::cor {
namespace {

std::string NewDomain() {
    static std::atomic<unsigned> count{0};
    // relaxed: only has to be another number each time.
    return "curve-" + std::to_string(count.fetch_add(1, std::memory_order_relaxed));
}

}  // namespace

CurveServer::Impl::Impl(CurveKeys keys, AllowedKeys allowed)
    : keys_(std::move(keys)), domain_(NewDomain()), allowed_(std::move(allowed)) {
    if (zmq_has("curve") == 0) {
        throw Error("the installed libzmq knows no CURVE");
    }
}

void CurveServer::Impl::Secure(zmq::socket_t& socket) const {
    socket.set(zmq::sockopt::curve_server, true);
    socket.set(zmq::sockopt::curve_secretkey, keys_.secret_key);
    // The transport asks for each peer as long as somebody answers, and the authenticator was there
    // before us and stays; the option that makes it insist is none of its stable ones yet. A peer
    // that nobody was asked for would have no name, and such a one has no right.
    socket.set(zmq::sockopt::zap_domain, domain_);
}

void CurveServer::Impl::Open(zmq::socket_t& socket) {
    socket.set(zmq::sockopt::curve_server, false);
}

CurveServer::CurveServer(CurveKeys keys, AllowedKeys allowed)
    : impl_(std::make_unique<Impl>(std::move(keys), std::move(allowed))) {
    Runtime::Get().authenticator().Add(*impl_);
}

CurveServer::~CurveServer() {
    if (!kvo::os::InForkedChild()) {
        Runtime::Get().authenticator().Remove(*impl_);
    }
}

void CurveServer::SetAllowed(AllowedKeys allowed) {
    impl_->SetAllowed(std::move(allowed));
}

std::string CurveServer::NameOf(const std::string& public_key) const {
    return impl_->NameOf(public_key);
}

}  // namespace gorm::cor
