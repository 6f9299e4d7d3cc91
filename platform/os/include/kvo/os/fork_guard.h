#pragma once

#include "kvo/os_export.h"

#include <atomic>

// A forked child inherits this system's objects, but neither the threads that serve them nor the
// mappings nor the process's lock bytes. From the first WatchForks() on, a child knows what it is:
// operations do nothing, destructors free memory only. A process that forks before is no such
// child: there everything can be used.
namespace kvo::os {

/// Called by whatever a child cannot share. Any thread.
KVO_OS_EXPORT void WatchForks();

namespace detail {
extern KVO_OS_EXPORT std::atomic<bool> forked_child;
}

/// Any thread.
[[gnu::always_inline]] inline bool InForkedChild() noexcept {
    // relaxed: set by the child's only thread, before there is another one.
    return detail::forked_child.load(std::memory_order_relaxed);
}

}  // namespace kvo::os
