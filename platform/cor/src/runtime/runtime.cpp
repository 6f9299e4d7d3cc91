#include "runtime/runtime.h"

#include "gorm/cor/errors.h"
#include "runtime/wkp_cor.h"
#include "transport/bounds.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <pthread.h>
#include <string>
#include <sys/random.h>

namespace gorm::cor {
namespace {

// relaxed everywhere: set by the child's only thread, before any other exists there.
std::atomic<bool> forked{false};

ProcessIdentity DrawIdentity() {
    ProcessIdentity identity{};
    // A first byte of zero marks names that the transport itself gives to connections.
    while (identity[0] == 0) {
        const ssize_t drawn = ::getrandom(identity.data(), identity.size(), 0);
        if (drawn < 0 && errno != EINTR) {
            throw Error(std::string("no random bytes: ") + std::strerror(errno));
        }
        if (drawn != static_cast<ssize_t>(identity.size())) {
            identity[0] = 0;
        }
    }
    return identity;
}

}  // namespace

const ProcessIdentity& process_identity() {
    return Runtime::Get().identity();
}

void set_transport_threads(int threads) {
    Runtime::Get().context().set(zmq::ctxopt::io_threads, threads);
}

[[gnu::hot]] bool in_forked_child() noexcept {
    return forked.load(std::memory_order_relaxed);
}

Runtime& Runtime::Get() {
    static auto* const runtime = new Runtime;
    return *runtime;
}

Runtime::Runtime() : identity_(DrawIdentity()), wkp_(std::make_unique<WkpCor>()) {
    context_.set(zmq::ctxopt::max_sockets, kMaxSockets);
    pthread_atfork(nullptr, nullptr, [] { forked.store(true, std::memory_order_relaxed); });
}

rr::ClientHub& Runtime::hub() {
    std::call_once(hub_made_,
                   [this] { hub_ = std::make_unique<rr::ClientHub>(context_, identity_); });
    return *hub_;
}

Authenticator& Runtime::authenticator() {
    std::call_once(authenticator_made_,
                   [this] { authenticator_ = std::make_unique<Authenticator>(context_); });
    return *authenticator_;
}

}  // namespace gorm::cor
