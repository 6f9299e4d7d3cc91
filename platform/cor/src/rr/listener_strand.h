#pragma once

#include "gorm/cor/rr/listener_registration.h"

#include <functional>
#include <memory>

namespace gorm::cor::rr {

/// Runs the connection listeners of one client, event after event, on a thread of its own, which
/// starts with the first listener. Any thread; Close once, before the destructor.
class ListenerStrand {
public:
    ListenerStrand();
    ListenerStrand(const ListenerStrand&) = delete;
    ListenerStrand& operator=(const ListenerStrand&) = delete;
    ~ListenerStrand();

    /// Throws Error when no thread can be started.
    ListenerRegistration Add(std::function<void(bool)> listener);
    /// For the listeners that are registered now. Waits for none of them.
    void Deliver(bool connected);
    /// When it returns no listener runs, except for a run that it is called from.
    void Close() noexcept;

private:
    struct State;
    std::shared_ptr<State> state_;  // registrations share it
};

}  // namespace gorm::cor::rr
