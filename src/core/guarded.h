#pragma once

#include "kvo/os/light_mutex.h"

#include <mutex>
#include <utility>

namespace kvo {

/// A value and its mutex in one: the value is reached only through the lock. The function must
/// not call out (broker, accessor, logger, application).
template <class T>
class Guarded {
public:
    template <class Function>
    auto With(Function&& function) {
        const std::lock_guard lock(mutex_);
        return std::forward<Function>(function)(value_);
    }
    T Get() const {
        const std::lock_guard lock(mutex_);
        return value_;
    }
    /// @return the value before; it is destroyed outside the lock.
    T Exchange(T value) {
        const std::lock_guard lock(mutex_);
        return std::exchange(value_, std::move(value));
    }

private:
    mutable os::LightMutex mutex_;
    T value_{};
};

}  // namespace kvo
