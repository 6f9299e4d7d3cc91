#pragma once

#include "kvo/os/thread_bound.h"
#include "remote/remote_transfer.h"
#include "remote/transfer_rates.h"
#include "streams/supervised_time.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace kvo::brokerd {

/// Sends one stream of this host to the brokers that import it.
///
/// They share one transfer, which costs as much as one for a single broker but goes at the pace of
/// the slowest of them, and does not know which that is. When it has not kept up for a while, the
/// group splits: each importer gets a transfer of its own until its import ends.
/// Threads: the loop.
class ExportGroup {
public:
    struct Calls {
        /// @param importer empty: for all. Throws std::runtime_error saying what is in the way.
        std::function<std::unique_ptr<RemoteTransfer>(const std::string& importer)> start;
        /// Destroys it without blocking the caller.
        std::function<void(std::unique_ptr<RemoteTransfer>)> end;
        std::function<void(int level, const std::string& text)> log;
    };
    static constexpr std::size_t kMostImporters = 1000;
    explicit ExportGroup(Calls calls) : calls_(std::move(calls)) {}

    /// A broker requests the stream, for the first time or again.
    /// @return false: there are too many others.
    [[nodiscard]] bool Request(const std::string& importer, TimePoint now);
    /// From now on also for programs that send no requests.
    void SendAlways() { always_ = true; }

    /// Sends a segment to all importers of now. Throws std::runtime_error; transfers that have
    /// started go on.
    void Send(std::uint64_t epoch);
    /// There is no publisher.
    void Pause();
    void Signal();

    /// @return false: no request came for a while, so the export is over.
    [[nodiscard]] bool Tick(TimePoint now);

    bool sending() const { return epoch_ != 0; }
    std::vector<std::string> Importers() const;
    /// One for each importer, or one in all where there is none; without the stream's name.
    std::vector<RemoteStreamState> States() const;
    TransferCounters Total() const;

private:
    using Transfer = std::unique_ptr<RemoteTransfer>;
    struct Importer {
        TimePoint requested;
        Transfer own;             // null while it uses the shared one
        TransferCounters before;  // of earlier own ones
        TransferRates rates;
    };

    void Start();
    void End(Transfer& transfer, TransferCounters& before);
    void EndImporters(TimePoint now);
    bool KeepsUp();
    void WatchShared(TimePoint now);
    void Split(TimePoint now);
    TransferCounters SentTo(const Importer& importer) const;

    const Calls calls_;
    os::ThreadBound thread_;
    std::map<std::string, Importer> importers_;  // by the name in their requests
    TransferCounters ended_;                     // own transfers of earlier importers
    bool always_ = false;
    std::uint64_t epoch_ = 0;  // 0: nothing is sent
    bool split_ = false;       // until no importer is left

    Transfer shared_;
    TransferCounters shared_before_;
    TransferRates shared_rates_;
    std::uint64_t shared_lost_ = 0;  // when last probed
    TimePoint kept_up_;              // the shared one, last
    TimePoint retry_;                // no split before, since one has failed
};

}  // namespace kvo::brokerd
