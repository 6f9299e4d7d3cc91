#pragma once

#include <cassert>
#include <thread>

namespace kvo::os {

/// Holds code to one thread: the first that passes here(), until it is released. Checks in debug
/// and sanitizer builds; nothing is kept or done in others. A broken promise aborts.
class ThreadBound {
public:
    // Written out, so that a const member needs no initialiser where there is nothing to keep.
    ThreadBound() {}

#ifdef NDEBUG
    void here() const {}
    void release() const {}
#else
    void here() const {
        if (thread_ == std::thread::id()) {
            thread_ = std::this_thread::get_id();
        }
        assert(thread_ == std::this_thread::get_id() && "called on another thread");
    }
    /// Before the object is handed to another thread.
    void release() const {
        thread_ = {};
    }

private:
    mutable std::thread::id thread_;
#endif
};

}  // namespace kvo::os
