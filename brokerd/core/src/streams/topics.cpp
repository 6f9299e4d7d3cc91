#include "streams/topics.h"

#include "gorm/cor/cor.h"

namespace kvo::brokerd {

using NotificationTraits = gorm::cor::CorTypeTraits<NotificationSample>;

Topics::Topics(gorm::cor::ps::Publisher& publisher)
    : publisher_(publisher),
      codec_(gorm::cor::Cor::FindSample(NotificationTraits::name, NotificationTraits::libraryName)),
      sample_(std::static_pointer_cast<NotificationSample>(codec_->Create())) {}

std::string Topics::Encode(const StreamName& stream, NotificationType type) {
    thread_.here();
    sample_->set_notification_type(type);
    sample_->set_data_stream_identifier(stream.text());
    return codec_->Encode(sample_.get(), gorm::cor::ps::InstanceEvent::kUpdated);
}

void Topics::Publish(const StreamName& stream, NotificationType type) {
    publisher_.Publish("/" + stream.text(), Encode(stream, type));
}

void Topics::Relay(const StreamName& stream) {
    publisher_.Relay("/" + stream.text(), Encode(stream, NEW_DATA));
}

void Topics::Open(const StreamName& stream) {
    thread_.here();
    if (publisher_.serves_local() && open_.insert(stream).second) {
        publisher_.OpenLocal("/" + stream.text(), Encode(stream, NEW_DATA));
    }
}

void Topics::CloseUnless(const std::function<bool(const StreamName& stream)>& needed) {
    for (auto stream = open_.begin(); stream != open_.end();) {
        if (needed(*stream)) {
            ++stream;
            continue;
        }
        publisher_.CloseLocal("/" + stream->text());
        stream = open_.erase(stream);
    }
}

StreamName Topics::StreamOf(std::string_view path) {
    return StreamName(path.empty() || path.front() != '/' ? "" : std::string(path.substr(1)));
}

}  // namespace kvo::brokerd
