#pragma once

#include "kvo/os_export.h"

#include <atomic>

namespace kvo::os {

/// A mutex that keeps no account of its owner: taking and leaving it while no other thread wants it
/// is one exchange each. What it guards takes so little time that the bookkeeping of std::mutex
/// would be a sixth of it. Who finds it taken sleeps in the kernel.
/// Threads: any. Not recursive, not between processes.
class KVO_OS_EXPORT LightMutex {
public:
    LightMutex() = default;
    LightMutex(const LightMutex&) = delete;
    LightMutex& operator=(const LightMutex&) = delete;

    [[gnu::hot]] bool try_lock() {
        int found = kFree;
        // Acquire: pairs with the release in unlock(); what the last holder did is visible.
        return state_.compare_exchange_strong(found, kTaken, std::memory_order_acquire,
                                              std::memory_order_relaxed);
    }
    [[gnu::hot]] void lock() {
        if (!try_lock()) {
            LockWhenFree();
        }
    }
    [[gnu::hot]] void unlock() {
        // Release: see try_lock(). A waiter has left its mark before it sleeps, so that either
        // this exchange finds the mark or the waiter's own exchange finds the mutex free.
        if (state_.exchange(kFree, std::memory_order_release) == kAwaited) {
            WakeOne();
        }
    }

private:
    enum : int { kFree, kTaken, kAwaited };

    void LockWhenFree();
    void WakeOne();

    std::atomic<int> state_{kFree};
};

}  // namespace kvo::os
