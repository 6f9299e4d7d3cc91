#pragma once

#include "gorm/cor/type_traits.h"
#include "kvo/broker_interface_export.h"

#include <cstdint>
#include <string>

namespace kvo {

/// What happened to a stream. The numbers are those of the wire.
enum NotificationType : std::uint32_t {
    NEW_DATA = 0,
    PUB_REG = 1,
    PUB_UNREG = 2,
    SHM_DEL = 3,
};

/// One notification of a broker about one stream; the stream is the key of its instance.
class KVO_BROKER_INTERFACE_EXPORT NotificationSample {
public:
    virtual ~NotificationSample();
    /// As received: a later broker may send values that NotificationType does not name.
    virtual NotificationType get_notification_type() const = 0;
    virtual void set_notification_type(NotificationType type) = 0;
    virtual const std::string& get_data_stream_identifier() const = 0;
    virtual void set_data_stream_identifier(const std::string& stream) = 0;
};

}  // namespace kvo

template <>
struct gorm::cor::CorTypeTraits<kvo::NotificationSample> {
    static constexpr const char* name = "kvo.NotificationSample";
    static constexpr const char* libraryName = "kvo-broker-interface";
};
