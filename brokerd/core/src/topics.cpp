#include "topics.h"

#include "gorm/cor/cor.h"

namespace kvo::brokerd {

using NotificationTraits = gorm::cor::CorTypeTraits<NotificationSample>;

Topics::Topics(gorm::cor::ps::Publisher& publisher)
    : publisher_(publisher),
      codec_(gorm::cor::Cor::FindSample(NotificationTraits::name, NotificationTraits::libraryName)),
      sample_(std::static_pointer_cast<NotificationSample>(codec_->Create())) {}

void Topics::Publish(const std::string& stream, NotificationType type) {
    sample_->set_notification_type(type);
    sample_->set_data_stream_identifier(stream);
    publisher_.Publish("/" + stream,
                       codec_->Encode(sample_.get(), gorm::cor::ps::InstanceEvent::kUpdated));
}

std::string Topics::StreamOf(std::string_view path) {
    return path.empty() || path.front() != '/' ? "" : std::string(path.substr(1));
}

}  // namespace kvo::brokerd
