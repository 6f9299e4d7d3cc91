#include "transport/context.h"

#include "gorm/cor/process.h"
#include "kvo/os/fork_guard.h"
#include "transport/bounds.h"

#include <memory>

namespace gorm::cor {

zmq::context_t& transport_context() {
    static auto* const context = [] {
        auto made = std::make_unique<zmq::context_t>();
        made->set(zmq::ctxopt::max_sockets, kMaxSockets);
        kvo::os::WatchForks();
        return made.release();
    }();
    return *context;
}

void set_transport_threads(int threads) {
    transport_context().set(zmq::ctxopt::io_threads, threads);
}

}  // namespace gorm::cor
