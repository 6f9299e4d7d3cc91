#pragma once

#include "gorm/cor/ps/publisher.h"
#include "gorm/cor/ps/sample_codec.h"
#include "kvo/broker/identifiers.h"
#include "kvo/broker/notification_sample.h"
#include "kvo/os/thread_bound.h"

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

    void Publish(const StreamName& stream, NotificationType type);
    /// NEW_DATA for subscribers at sockets; those of this host have been told.
    void Relay(const StreamName& stream);

    /// From now on subscribers of this host can listen to the stream through memory.
    void Open(const StreamName& stream);
    /// Ends that for the streams that are needed no more.
    void CloseUnless(const std::function<bool(const StreamName& stream)>& needed);

    /// The stream whose topic has this path; empty: none.
    static StreamName StreamOf(std::string_view path);

private:
    std::string Encode(const StreamName& stream, NotificationType type);

    os::ThreadBound thread_;
    gorm::cor::ps::Publisher& publisher_;
    std::set<StreamName> open_;
    const std::shared_ptr<const gorm::cor::ps::SampleCodec> codec_;
    const std::shared_ptr<NotificationSample> sample_;
};

}  // namespace kvo::brokerd
