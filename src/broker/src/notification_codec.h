#pragma once

#include "gorm/cor/ps/sample_codec.h"

#include <memory>

namespace kvo {

/// A NotificationSample on the wire: the MessagePack array [notification type, stream, instance
/// event]. Elements after these are ignored.
std::shared_ptr<const gorm::cor::ps::SampleCodec> MakeNotificationCodec();

}  // namespace kvo
