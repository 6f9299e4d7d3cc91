#pragma once

#include "gorm/cor/ps/publisher.h"
#include "gorm/cor/ps/sample_codec.h"
#include "kvo/broker/notification_sample.h"

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>

namespace kvo::brokerd {

/// The notification topics of all streams on one publish/subscribe address.
/// Threads: the service loop.
class Topics {
public:
    explicit Topics(gorm::cor::ps::Publisher& publisher);

    void Publish(const std::string& stream, NotificationType type);
    /// NEW_DATA for those that listen at sockets; the others know already.
    void Relay(const std::string& stream);

    /// From now on subscribers of this host can listen to the stream through memory.
    void Open(const std::string& stream);
    /// Ends that for the streams that nobody needs.
    void CloseUnless(const std::function<bool(const std::string& stream)>& needed);

    /// The stream whose topic has this path; empty: none.
    static std::string StreamOf(std::string_view path);

private:
    std::string Encode(const std::string& stream, NotificationType type);

    gorm::cor::ps::Publisher& publisher_;
    std::set<std::string> open_;  // streams
    const std::shared_ptr<const gorm::cor::ps::SampleCodec> codec_;
    const std::shared_ptr<NotificationSample> sample_;
};

}  // namespace kvo::brokerd
