#pragma once

#include "gorm/cor/ps/local_topic.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace kvo {

/// The shortest way for what a publisher tells at every sample: memory where the broker offers
/// that, the wire else. Threads: any.
class LocalNotifier {
public:
    /// @param host of the broker.
    explicit LocalNotifier(std::string host) : host_(std::move(host)) {}

    /// What the broker has answered; to be called after each connection.
    void SetCapabilities(const std::vector<std::string>& capabilities);
    /// The connection was lost: another broker may come.
    void Reset();

    enum class Way {
        kMemory,  // subscribers have been told
        kBoth,    // those at sockets are to be told by the broker
        kWire,    // no subscriber has been told yet
    };
    /// Tells of new data. Takes no memory once the stream's topic is known.
    Way Notify(const std::string& stream);

    /// Whether the broker counts by itself what is written.
    // relaxed: an answer that comes meanwhile is as if it came a moment later.
    bool counts_by_itself() const { return counts_by_itself_.load(std::memory_order_relaxed); }

private:
    struct Topic {
        std::shared_ptr<gorm::cor::ps::LocalTopic> memory;  // null: there was none
        std::chrono::steady_clock::time_point looked;
    };
    std::shared_ptr<gorm::cor::ps::LocalTopic> Find(const std::string& stream);

    const std::string host_;
    std::atomic<bool> counts_by_itself_{false};
    std::mutex mutex_;                                  // all below
    std::uint16_t port_ = 0;                            // of the notifications; 0: by the wire
    std::map<std::string, Topic, std::less<>> topics_;  // by stream
};

}  // namespace kvo
