#pragma once

#include "gorm/cor/export.h"
#include "gorm/cor/rr/listener_registration.h"

#include <boost/thread/future.hpp>

#include <functional>
#include <string>
#include <string_view>

namespace gorm::cor::rr {

/// What a client stub stands on: carries packed calls to the peer and returns the answers.
/// Threads: any number at once, but for the destructor.
class GORM_COR_EXPORT Channel {
public:
    Channel() = default;
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;
    virtual ~Channel();

    /// @param method the operation's name. @param params one packed MessagePack array.
    /// @return the packed result. Throws ReplyTimeout, ConnectionLost or RemoteError, whose texts
    /// name operation, address and reason.
    virtual std::string Request(const char* method, std::string_view params) = 0;

    /// One-way: never waits and never throws for want of a connection or of room; what cannot be
    /// sent is dropped and counted.
    virtual void Notify(const char* method, std::string_view params) = 0;

    /// As Request without waiting: `answered` gets the packed result on the I/O thread, where it
    /// must not block; it is not called when there is none, as without a connection.
    virtual void RequestAsync(const char* method, std::string_view params,
                              std::function<void(const std::string& result)> answered) = 0;

    /// The host that the channel leads to, as the URI has it.
    virtual std::string host() const = 0;

    virtual boost::future<void> Connect() = 0;
    [[nodiscard]] virtual ListenerRegistration RegisterConnectionListener(
        std::function<void(bool)> listener) = 0;

    /// Fails the calls in flight and all later ones with ConnectionLost, waits until they have
    /// left and until no listener runs (except the caller's own run). A second call does nothing.
    virtual void Close() noexcept = 0;
};

}  // namespace gorm::cor::rr
