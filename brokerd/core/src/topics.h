#pragma once

#include "gorm/cor/ps/publisher.h"
#include "gorm/cor/ps/sample_codec.h"
#include "kvo/broker/notification_sample.h"

#include <memory>
#include <string>
#include <string_view>

namespace kvo::brokerd {

/// The notification topics of all streams on one publish/subscribe address.
/// Threads: the service loop.
class Topics {
public:
    explicit Topics(gorm::cor::ps::Publisher& publisher);

    void Publish(const std::string& stream, NotificationType type);

    /// The stream whose topic has this path; empty: none.
    static std::string StreamOf(std::string_view path);

private:
    gorm::cor::ps::Publisher& publisher_;
    const std::shared_ptr<const gorm::cor::ps::SampleCodec> codec_;
    const std::shared_ptr<NotificationSample> sample_;
};

}  // namespace kvo::brokerd
