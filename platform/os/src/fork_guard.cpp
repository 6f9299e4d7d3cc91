#include "kvo/os/fork_guard.h"

#include <pthread.h>

namespace kvo::os {

std::atomic<bool> detail::forked_child{false};

void WatchForks() {
    static const int registered = pthread_atfork(
        nullptr, nullptr, [] { detail::forked_child.store(true, std::memory_order_relaxed); });
    static_cast<void>(registered);
}

}  // namespace kvo::os
