#pragma once

#include "remote/remote_transfer.h"
#include "remote/transfer_rates.h"
#include "streams/supervised_time.h"

#include <chrono>
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
/// They share one transfer, which costs as much as for a single one. It has to wait for the slowest
/// of them, and does not know which that is. So when it does not keep up for a while, each gets
/// a transfer of its own, which goes as fast as its way allows. They share one again when all
/// of them have been up to date for a minute, or when none gets more by being alone: then it is
/// the publisher that is too fast for this host.
/// Threads: one.
class ExportGroup {
public:
    struct Calls {
        /// @param importer empty: for all. Throws std::runtime_error saying what is in the way.
        std::function<std::unique_ptr<RemoteTransfer>(const std::string& importer)> start;
        /// Destroys it without anybody waiting.
        std::function<void(std::unique_ptr<RemoteTransfer>)> end;
        std::function<void(int level, const std::string& text)> log;
    };
    static constexpr std::size_t kMostImporters = 1000;
    explicit ExportGroup(Calls calls);

    /// A broker asks for the stream, for the first time or once more.
    /// @return false: there are too many others.
    bool Asked(const std::string& importer, TimePoint now);
    /// From now on for programs that do not ask, too.
    void SendToAnybody() { to_anybody_ = true; }

    /// Sends a segment, and to whoever has come since. Throws std::runtime_error; what is sent
    /// already goes on.
    void Send(std::uint64_t epoch);
    /// There is no publisher.
    void Pause();
    void Signal();

    /// @return false: nobody has asked for a while, so it is over.
    bool Tick(TimePoint now);

    bool sending() const { return epoch_ != 0; }
    std::vector<std::string> Importers() const;
    /// One for each broker, and one where there is none; without the stream's name.
    std::vector<RemoteStreamState> States() const;
    TransferCounters Total() const;

private:
    using Transfer = std::unique_ptr<RemoteTransfer>;
    struct Importer {
        TimePoint asked;
        Transfer own;                    // null while it shares the common one
        TransferCounters before;         // of earlier own ones
        std::uint64_t samples_seen = 0;  // of the own one, at the last look
        std::uint64_t lost = 0;          // likewise
        TransferRates rates;
    };

    void Start();
    void Retire(Transfer& transfer, TransferCounters& before);
    static bool KeepsUp(const RemoteTransfer& transfer, std::uint64_t& lost);
    void WatchTogether(TimePoint now);
    void WatchApart(TimePoint now);
    void Part(TimePoint now);
    void Join(const std::string& why);
    void EndOwn();
    void StayTogether(TimePoint now);
    TransferCounters SentTo(const Importer& importer) const;

    const Calls calls_;
    std::map<std::string, Importer> importers_;  // by the name under which they ask
    TransferCounters gone_;                      // own transfers of others that were there
    bool to_anybody_ = false;
    std::uint64_t epoch_ = 0;  // 0: nothing is sent
    Transfer common_;
    TransferCounters common_before_;
    std::uint64_t common_lost_ = 0;  // at the last look
    TransferRates common_rates_;

    bool apart_ = false;
    TimePoint up_to_date_;      // when all were last
    TimePoint looked_;          // at those that are apart
    TimePoint together_until_;  // at least
    std::chrono::seconds pause_;
};

}  // namespace kvo::brokerd
