#include "gorm/cor/rr/qos.h"

namespace gorm::cor::rr::qos {

QoS::~QoS() = default;

ReplyTime::ReplyTime(std::chrono::milliseconds duration) : duration_(duration) {}

ReplyTime::~ReplyTime() = default;

}  // namespace gorm::cor::rr::qos
