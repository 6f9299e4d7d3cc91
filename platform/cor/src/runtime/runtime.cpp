#include "runtime/runtime.h"

#include "gorm/cor/process.h"
#include "kvo/os/fork_guard.h"
#include "runtime/wkp_cor.h"
#include "transport/bounds.h"

namespace gorm::cor {
void set_transport_threads(int threads) {
    Runtime::Get().context().set(zmq::ctxopt::io_threads, threads);
}

Runtime& Runtime::Get() {
    static auto* const runtime = new Runtime;
    return *runtime;
}

Runtime::Runtime() : wkp_(std::make_unique<WkpCor>()) {
    context_.set(zmq::ctxopt::max_sockets, kMaxSockets);
    kvo::os::WatchForks();
}

rr::ClientHub& Runtime::hub() {
    std::call_once(hub_made_, [this] { hub_ = std::make_unique<rr::ClientHub>(context_); });
    return *hub_;
}

Authenticator& Runtime::authenticator() {
    std::call_once(authenticator_made_,
                   [this] { authenticator_ = std::make_unique<Authenticator>(context_); });
    return *authenticator_;
}

}  // namespace gorm::cor
