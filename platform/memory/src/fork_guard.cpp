#include "fork_guard.h"

#include <atomic>
#include <pthread.h>

namespace kvo {
namespace {

std::atomic<bool> forked_child{false};

}  // namespace

void WatchForks() {
    // relaxed: the handler runs in the child's only thread.
    static const int registered = pthread_atfork(
        nullptr, nullptr, [] { forked_child.store(true, std::memory_order_relaxed); });
    static_cast<void>(registered);
}

[[gnu::hot]] bool InForkedChild() {
    return forked_child.load(std::memory_order_relaxed);
}

}  // namespace kvo
