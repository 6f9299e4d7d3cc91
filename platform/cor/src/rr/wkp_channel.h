#pragma once

#include "gorm/cor/rr/channel.h"
#include "gorm/cor/rr/qos.h"
#include "rr/client_hub.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace gorm::cor::rr {

/// A client's channel over a connection that it shares with others.
class WkpChannel final : public Channel {
public:
    /// Begins to connect; throws Error.
    WkpChannel(ClientHub& hub, Address address, const qos::QoSList& qos);
    ~WkpChannel() override;

    std::string Request(const char* method, std::string_view params) override;
    void Notify(const char* method, std::string_view params) override;
    void RequestAsync(const char* method, std::string_view params,
                      std::function<void(const std::string&)> answered) override;
    std::string host() const override { return end_->address.host; }
    boost::future<void> Connect() override;
    ListenerRegistration RegisterConnectionListener(std::function<void(bool)> listener) override;
    void Close() noexcept override;

private:
    class Visit;
    std::string At(const char* method) const;
    std::string Exchange(const std::string& at, const std::shared_ptr<PendingCall>& call);
    bool PostNotification(const char* method, std::string_view params);

    // Shared with the notifications that are on their way to the I/O thread.
    struct OneWay {
        std::atomic<std::uint32_t> queued{0};
        std::atomic<std::uint64_t> dropped{0};
    };

    ClientHub& hub_;
    const std::shared_ptr<ClientEnd> end_;
    const std::chrono::milliseconds reply_time_;
    const std::shared_ptr<OneWay> one_way_;

    std::mutex mutex_;
    std::condition_variable left_;
    bool closed_ = false;  // under the mutex
    int visitors_ = 0;     // under the mutex: calls inside Request
};

}  // namespace gorm::cor::rr
