#include "channel_reporter.h"

#include "gorm/cor/rr/packing.h"

#include <utility>

namespace kvo {
namespace {

using gorm::cor::ps::LocalTopic;
using gorm::cor::rr::PackParams;

constexpr std::chrono::seconds kSearchPause{1};  // after a search that found nothing

}  // namespace

StreamReporter::~StreamReporter() = default;

ChannelReporter::ChannelReporter(std::string stream,
                                 std::shared_ptr<gorm::cor::rr::Channel> channel,
                                 std::shared_ptr<const BrokerCapabilities> capabilities)
    : stream_(std::move(stream)),
      channel_(std::move(channel)),
      capabilities_(std::move(capabilities)) {}

[[gnu::hot]] void ChannelReporter::ReportDataWritten(std::int32_t payload_size,
                                                     std::int64_t written_ms) {
    if (!capabilities_->local_accounting()) {
        channel_->Notify("ReportDataWritten", PackParams(stream_, payload_size, written_ms));
    }
}

[[gnu::hot]] void ChannelReporter::NotifyNewData() {
    LocalTopic* const topic = Topic();
    if (topic == nullptr) {
        channel_->Notify("NotifyNewData", PackParams(stream_));
        return;
    }
    topic->Notify();
    if (topic->relayed()) {
        channel_->Notify("RelayNewData", PackParams(stream_));
    }
}

[[gnu::hot]] LocalTopic* ChannelReporter::Topic() {
    const std::uint16_t port = capabilities_->topic_port();
    if (port == 0) {
        return nullptr;
    }
    LocalTopic* const topic = topic_;
    return topic != nullptr && !topic->closed() ? topic : FindTopic(port);
}

LocalTopic* ChannelReporter::FindTopic(std::uint16_t port) {
    const std::unique_lock lock(search_, std::try_to_lock);
    if (!lock) {
        return nullptr;  // another thread searches; this call takes the wire
    }
    const auto now = std::chrono::steady_clock::now();
    if (topic_ == nullptr && now < next_search_) {
        return nullptr;
    }
    topic_ = nullptr;
    next_search_ = now + kSearchPause;
    if (auto found = LocalTopic::Find(channel_->host(), port, "/" + stream_)) {
        topics_.push_back(std::move(found));
        topic_ = topics_.back().get();
    }
    return topic_;
}

}  // namespace kvo
