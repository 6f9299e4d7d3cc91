#pragma once

#include "gorm/cor/ps/topic_watch.h"
#include "kvo/brokerd/federation_engine.h"
#include "remote/remote_transfer.h"

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace kvo {
class KvoLogger;
class KvoMemoryAccessor;
}  // namespace kvo

namespace kvo::brokerd {

/// Sends the samples of one segment to other hosts, on a thread of its own that reads the stream
/// file as any reader does: back-pressure costs its own samples, never the publisher's.
class StreamExport final : public RemoteTransfer {
public:
    struct Order {
        std::string stream;
        std::string path;  // of the stream file, which is the segment of the epoch
        std::uint64_t epoch;
        RemoteTopic topic;
    };
    /// Throws std::runtime_error saying what is in the way.
    /// @param watch null: Signal() tells of new data. @param logger not owned, may be null.
    StreamExport(const Order& order, FederationEngine& engine,
                 std::unique_ptr<gorm::cor::ps::TopicWatch> watch, KvoLogger* logger);
    StreamExport(const StreamExport&) = delete;
    StreamExport& operator=(const StreamExport&) = delete;
    /// Sends what the file still holds, as long as that takes no more than a second; nothing more
    /// when it is abandoned.
    ~StreamExport() override;

    void Signal() override;
    void Abandon() override;
    TransferCounters Counters() const override;
    std::chrono::milliseconds Lag() const override;

private:
    void Run();
    void Send();
    void Sleep();

    const std::uint64_t epoch_;
    const std::unique_ptr<gorm::cor::ps::TopicWatch> watch_;
    std::unique_ptr<RemoteWriter> writer_;
    std::unique_ptr<KvoMemoryAccessor> accessor_;

    std::atomic<bool> stopping_{false};  // relaxed, as the next: the thread is joined
    std::atomic<bool> abandoned_{false};
    std::mutex mutex_;
    std::condition_variable woken_;
    bool signalled_ = false;  // under the mutex

    // relaxed all of them: shown to people.
    std::atomic<std::uint64_t> samples_{0};
    std::atomic<std::uint64_t> bytes_{0};
    std::atomic<std::uint64_t> dropped_{0};
    std::atomic<std::uint64_t> overrun_{0};
    std::atomic<std::uint64_t> sending_ms_{0};  // when that sample was written; 0: nothing waits

    std::thread thread_;
};

}  // namespace kvo::brokerd
