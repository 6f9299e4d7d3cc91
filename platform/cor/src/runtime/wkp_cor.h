#pragma once

#include "gorm/cor/cor.h"

#include <memory>

namespace gorm::cor {

inline constexpr const char* kRequestScheme = "wkp.rr";
inline constexpr const char* kTopicScheme = "wkp.ps";

/// The binding to MessagePack over ZeroMQ.
class WkpCor final : public Cor {
public:
    Properties getDefaultProperties() const override;
    std::unique_ptr<rr::Channel> OpenChannel(const network::uri& uri, const rr::qos::QoSList& qos,
                                             const Properties& properties) override;
    std::unique_ptr<ps::TopicReader> OpenTopicReader(const network::uri& uri,
                                                     std::shared_ptr<const ps::SampleCodec> codec,
                                                     const Properties& properties) override;
};

}  // namespace gorm::cor
