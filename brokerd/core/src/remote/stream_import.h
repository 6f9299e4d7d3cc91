#pragma once

#include "kvo/brokerd/federation_engine.h"
#include "kvo/memory/import_writer.h"
#include "remote/remote_transfer.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>

namespace kvo::brokerd {

/// Copies the samples of one segment of another host into a stream file of this one, on a thread
/// of its own: each once and in order; missing ones are counted.
class StreamImport final : public RemoteTransfer {
public:
    struct Order {
        std::string path;     // of the local stream file
        std::uint64_t epoch;  // of the segment there; samples of others are dropped
        RemoteTopic topic;
        std::string own_topic;  // of the samples for this host alone
    };
    /// Called on the import's thread; must not block for long.
    struct Calls {
        std::function<void()> written;               // there are new samples in the file
        std::function<void(bool connected)> linked;  // the topic's writer has come or gone
        std::function<void()> outdated;              // samples of another epoch come
    };
    /// Throws std::runtime_error saying what is in the way.
    StreamImport(const Order& order, FederationEngine& engine, Calls calls);
    StreamImport(const StreamImport&) = delete;
    StreamImport& operator=(const StreamImport&) = delete;
    ~StreamImport() override;

    TransferCounters Counters() const override;

private:
    void Run();
    void Take(const SampleView& sample);

    const std::uint64_t epoch_;
    const Calls calls_;
    ImportWriter file_;
    const std::unique_ptr<RemoteReader> reader_;

    // The thread's
    std::uint64_t last_ = 0;  // sequence number; 0: nothing has come
    bool other_epoch_ = false;

    std::atomic<bool> stopping_{false};
    // relaxed all of them: shown to people.
    std::atomic<std::uint64_t> samples_{0};
    std::atomic<std::uint64_t> bytes_{0};
    std::atomic<std::uint64_t> lost_{0};
    std::atomic<std::uint64_t> rejected_{0};

    std::thread thread_;
};

}  // namespace kvo::brokerd
