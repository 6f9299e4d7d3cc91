#include "kvo/os/light_mutex.h"

namespace kvo::os {

// Others may wait as well, so it is left as awaited; at worst one is woken for nothing.
void LightMutex::LockWhenFree() {
    while (state_.exchange(kAwaited, std::memory_order_acquire) != kFree) {
        state_.wait(kAwaited, std::memory_order_relaxed);
    }
}

void LightMutex::WakeOne() {
    state_.notify_one();
}

}  // namespace kvo::os
