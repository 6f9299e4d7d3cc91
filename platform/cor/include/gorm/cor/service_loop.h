#pragma once

#include "gorm/cor/export.h"

#include <chrono>
#include <functional>
#include <memory>

namespace gorm::cor {

/// The one thread that the server side of a process runs on: requests, subscriptions, timers and
/// posted functions run on it one after the other, so what is only touched there needs no lock.
/// Nothing that runs on it may block for long.
class GORM_COR_EXPORT ServiceLoop {
public:
    ServiceLoop();
    ServiceLoop(const ServiceLoop&) = delete;
    ServiceLoop& operator=(const ServiceLoop&) = delete;
    ~ServiceLoop();  // Stop()

    /// Runs the function on the loop; any thread. After Stop it is dropped.
    void Post(std::function<void()> function);

    /// Runs the function on the loop and returns when it is done; passes its exception on. On the
    /// loop itself, or once it has stopped, the function runs directly.
    void Run(const std::function<void()>& function);

    /// Runs the function on the loop every `period` until Stop; a late run is not made up for.
    void Every(std::chrono::milliseconds period, std::function<void()> function);

    /// Ends the thread after what was posted before; the second call does nothing. Not on the
    /// loop itself.
    void Stop();

    bool here() const;

    class Impl;  // for the sockets of the binding
    Impl& impl() { return *impl_; }

private:
    std::unique_ptr<Impl> impl_;
};

}  // namespace gorm::cor
