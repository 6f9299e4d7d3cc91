#pragma once

#include "broker_capabilities.h"
#include "gorm/cor/ps/local_topic.h"
#include "gorm/cor/rr/channel.h"
#include "kvo/broker/stream_reporter.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kvo {

/// The reporter of a client: the stream's topic in shared memory where the broker has one, and
/// the client's channel otherwise.
class ChannelReporter final : public StreamReporter {
public:
    ChannelReporter(std::string stream, std::shared_ptr<gorm::cor::rr::Channel> channel,
                    std::shared_ptr<const BrokerCapabilities> capabilities);

    void ReportDataWritten(std::int32_t payload_size, std::int64_t written_ms) override;
    void NotifyNewData() override;

private:
    gorm::cor::ps::LocalTopic* Topic();
    gorm::cor::ps::LocalTopic* FindTopic(std::uint16_t port);

    const std::string stream_;
    const std::shared_ptr<gorm::cor::rr::Channel> channel_;
    const std::shared_ptr<const BrokerCapabilities> capabilities_;
    std::atomic<gorm::cor::ps::LocalTopic*> topic_{nullptr};  // last of topics_; null: none in use

    std::mutex search_;  // those below
    // Every topic that was found: another thread may still be in one that was closed since. A
    // topic is closed with its broker, and then the publisher opens a new reporter.
    std::vector<std::unique_ptr<gorm::cor::ps::LocalTopic>> topics_;
    std::chrono::steady_clock::time_point next_search_;
};

}  // namespace kvo
