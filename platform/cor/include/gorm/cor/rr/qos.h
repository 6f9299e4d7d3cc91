#pragma once

#include "gorm/cor/export.h"

#include <chrono>
#include <memory>
#include <vector>

namespace gorm::cor::rr::qos {

/// One quality of a request/reply client.
class GORM_COR_EXPORT QoS {
public:
    virtual ~QoS();
};

using QoSList = std::vector<std::shared_ptr<QoS>>;

/// How long a request waits for its answer. 0 or below: every request fails at once.
class GORM_COR_EXPORT ReplyTime final : public QoS {
public:
    explicit ReplyTime(std::chrono::milliseconds duration);
    ~ReplyTime() override;
    std::chrono::milliseconds duration() const { return duration_; }

private:
    std::chrono::milliseconds duration_;
};

}  // namespace gorm::cor::rr::qos
