#pragma once

#include "kvo/os/fork_guard.h"
#include "transport/log.h"

#include <atomic>
#include <exception>
#include <functional>
#include <string>
#include <thread>
#include <utility>

namespace gorm::cor {

/// One registered listener. Run is called by one thread at a time, Remove by any; both hold a
/// share of the slot while they do.
template <class Argument>
class ListenerSlot {
public:
    explicit ListenerSlot(std::function<void(const Argument&)> listener)
        : listener_(std::move(listener)) {}

    /// Runs the listener; what it throws is logged. @return false: it has been removed.
    [[gnu::hot]] bool Run(const Argument& argument) {
        // relaxed: of use to this very thread only, in Remove().
        runner_.store(std::this_thread::get_id(), std::memory_order_relaxed);
        const bool removed = Enter();
        if (!removed) {
            try {
                listener_(argument);
            } catch (const std::exception& error) {
                LogError(std::string("a listener threw: ") + error.what());
            } catch (...) {
                LogError("a listener threw something that is no std::exception");
            }
        }
        runner_.store(std::thread::id(), std::memory_order_relaxed);
        Leave();
        return !removed;
    }

    /// No run begins any more, and none is in progress but the caller's own.
    void Remove() noexcept {
        if (kvo::os::InForkedChild()) {
            return;  // the thread that runs it is not here
        }
        // [slot] Acquire: what a run that has ended did is visible.
        int state = state_.fetch_or(kRemoved, std::memory_order_acq_rel) | kRemoved;
        while ((state & kRunning) != 0 &&
               runner_.load(std::memory_order_relaxed) != std::this_thread::get_id()) {
            state_.wait(state, std::memory_order_acquire);
            state = state_.load(std::memory_order_acquire);
        }
    }

private:
    enum : int { kRunning = 1, kRemoved = 2 };

    // One order of both bits' changes: either this sees that the listener is removed, or
    // Remove() sees that it runs.
    bool Enter() { return (state_.fetch_or(kRunning, std::memory_order_acq_rel) & kRemoved) != 0; }
    // [slot] Release: pairs with the loads in Remove().
    void Leave() {
        if ((state_.fetch_and(~kRunning, std::memory_order_acq_rel) & kRemoved) != 0) {
            state_.notify_all();
        }
    }

    const std::function<void(const Argument&)> listener_;
    std::atomic<int> state_{0};
    std::atomic<std::thread::id> runner_{};  // of no thread: it does not run
};

}  // namespace gorm::cor
