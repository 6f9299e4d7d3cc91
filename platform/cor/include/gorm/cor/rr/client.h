#pragma once

#include "gorm/cor/export.h"
#include "gorm/cor/rr/listener_registration.h"

#include <boost/thread/future.hpp>

#include <atomic>
#include <functional>

namespace gorm::cor::rr {

/// The connection face that every request/reply client has beside the operations of its
/// interface. A client is a handle on a connection that clients of one process to one address
/// share.
/// Threads: all operations from any number of threads at once; the destructor once.
class GORM_COR_EXPORT Client {
public:
    Client() = default;
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    /// Derived clients close their channel first, which fails the calls in flight.
    virtual ~Client();

    /// Becomes ready when the connection stands; at once when it does already. Ends with
    /// ConnectionLost when the client is destroyed before.
    virtual boost::future<void> Connect() = 0;

    /// The listener hears every later change: true connected, false lost, in order, on a thread
    /// that only this client's listeners use, so it may block. It hears nothing of the state at
    /// registration. What it throws is logged.
    [[nodiscard]] virtual ListenerRegistration RegisterConnectionListener(
        std::function<void(bool)> listener) = 0;

    /// Marks a call for as long as it lives: the destruction of the client waits for it. Taken
    /// under the lock that guards the owner's pointer, so that a call cannot meet a client that
    /// is being deleted. Takes no memory and never blocks.
    class Use {
    public:
        explicit Use(Client& client) noexcept : client_(client) { client_.AddUser(); }
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;
        ~Use() { client_.RemoveUser(); }

    private:
        Client& client_;
    };

protected:
    /// For the most derived destructor, after its channel is closed: returns when no Use is left.
    void AwaitUsers() noexcept;

private:
    void AddUser() noexcept;
    void RemoveUser() noexcept;
    std::atomic<unsigned> users_{0};
};

}  // namespace gorm::cor::rr
