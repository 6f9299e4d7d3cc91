#pragma once

#include "gorm/cor/process.h"
#include "log.h"

#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
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
    bool Run(const Argument& argument) {
        {
            const std::lock_guard lock(mutex_);
            if (removed_) {
                return false;
            }
            runner_ = std::this_thread::get_id();
        }
        try {
            listener_(argument);
        } catch (const std::exception& error) {
            LogError(std::string("a listener threw: ") + error.what());
        } catch (...) {
            LogError("a listener threw something that is no std::exception");
        }
        const std::lock_guard lock(mutex_);
        runner_ = std::thread::id();
        idle_.notify_all();
        return true;
    }

    /// No run begins any more, and none is in progress but the caller's own.
    void Remove() noexcept {
        if (in_forked_child()) {
            return;  // the lock may be held by a thread that is not here
        }
        std::unique_lock lock(mutex_);
        removed_ = true;
        idle_.wait(lock, [this] {
            return runner_ == std::thread::id() || runner_ == std::this_thread::get_id();
        });
    }

private:
    const std::function<void(const Argument&)> listener_;
    std::mutex mutex_;
    std::condition_variable idle_;
    bool removed_ = false;    // under the mutex
    std::thread::id runner_;  // under the mutex; of no thread: it does not run
};

}  // namespace gorm::cor
