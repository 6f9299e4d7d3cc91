#pragma once

#include "gorm/cor/cor.h"
#include "rr/client_hub.h"

#include <zmq.hpp>

#include <memory>
#include <mutex>

namespace gorm::cor {

/// The binding to MessagePack over ZeroMQ.
class WkpCor final : public Cor {
public:
    explicit WkpCor(zmq::context_t& context) : context_(context) {}

    Properties getDefaultProperties() const override;
    std::unique_ptr<rr::Channel> OpenChannel(const network::uri& uri, const rr::qos::QoSList& qos,
                                             const Properties& properties) override;
    std::unique_ptr<ps::TopicReader> OpenTopicReader(const network::uri& uri,
                                                     std::shared_ptr<const ps::SampleCodec> codec,
                                                     const Properties& properties) override;

private:
    /// The clients' side; its I/O thread starts with the first use.
    rr::ClientHub& hub();

    zmq::context_t& context_;
    std::once_flag hub_made_;
    std::unique_ptr<rr::ClientHub> hub_;  // set once
};

}  // namespace gorm::cor
