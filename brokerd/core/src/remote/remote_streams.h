#pragma once

#include "kvo/broker/stream_description.h"
#include "kvo/os/thread_bound.h"
#include "remote/export_group.h"
#include "remote/remote_transfer.h"
#include "remote/transfer_rates.h"
#include "streams/stream_registry.h"
#include "streams/supervised_time.h"
#include "streams/verdict.h"

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kvo::brokerd {

/// The streams that this broker imports from others and exports to them: which there are, since
/// when, and what subscribers are told. Knows neither sockets nor engines.
///
/// An import begins with its first subscriber and ends with its last. It is live while the remote
/// publisher can be reached, otherwise lost and requested again every second.
/// An export begins with the first request of another broker and ends when none has come for a
/// while; it sends while the stream has a publisher.
/// Threads: the loop, which runs the callbacks too.
class RemoteStreams {
public:
    /// What another broker has answered.
    struct Answer {
        StreamDescription description;
        Verdict verdict;  // refused: there is no description
    };
    struct ImportOrder {
        std::string stream;
        std::uint64_t run;  // to be given back to Linked() and Outdated()
        StreamDescription source;
    };
    struct ExportOrder {
        std::string stream;
        StreamDescription source;
        std::string importer;  // empty: for all
    };
    struct Calls {
        /// Requests the description from the broker, with or without an export; answers once,
        /// later.
        std::function<void(const std::string& broker, const std::string& stream, bool to_export,
                           std::function<void(const Answer&)> answered)>
            ask;
        /// The file is there. Throws std::runtime_error saying what is in the way.
        std::function<std::unique_ptr<RemoteTransfer>(const ImportOrder&)> start_import;
        std::function<std::unique_ptr<RemoteTransfer>(const ExportOrder&)> start_export;
        /// Destroys it without blocking the caller.
        std::function<void(std::unique_ptr<RemoteTransfer>)> end;
        std::function<void(int level, const std::string& text)> log;
        /// Whether a stream is exported without requests, as long as it has a publisher.
        std::function<bool(const std::string& stream)> always_exported;
    };
    /// @param id unlike that of any other broker. @param name under which others find the topics
    /// of this one.
    RemoteStreams(std::string id, std::string name, StreamRegistry& registry,
                  const SupervisedTime& time, Calls calls);

    /// Imports a stream for a new subscriber. @param broker its URI.
    /// @param done gets the verdict, at once or later; `local`: the stream is of this broker.
    /// It adds the subscriber to the registry before it returns.
    using Done = std::function<void(const Verdict& verdict, bool local)>;
    void RequestImport(const std::string& broker, const std::string& stream,
                       std::int32_t deadline_s, Done done);

    /// Checks whether the stream has a publisher at the broker; the verdict says why not.
    void Probe(const std::string& broker, const std::string& stream, Done done);

    /// A request of another broker. @param importer its name; empty: nothing is exported. Throws
    /// std::runtime_error when the stream cannot be exported.
    StreamDescription Describe(const std::string& stream, const std::string& importer);

    /// The publisher of a stream of this host has come, gone, or been replaced.
    void PublisherChanged(const std::string& stream);
    /// There may be new data in a stream of this host.
    void NewData(const std::string& stream);

    /// Of a running import: the other end has come or gone.
    void Linked(const std::string& stream, std::uint64_t run, bool linked);
    /// Of a running import: it takes an old segment.
    void Outdated(const std::string& stream, std::uint64_t run);

    /// To be called every 50 ms or so.
    void Tick();
    /// Ends everything; the transfers are destroyed before it returns.
    void EndAll();

    /// Brokers with a live import or a running export.
    std::vector<std::string> ConnectedBrokers() const;
    std::vector<RemoteStreamState> States() const;
    /// What has come and gone since import or export began; none: there is no import or export.
    std::optional<TransferCounters> Imported(const std::string& stream) const;
    std::optional<TransferCounters> Exported(const std::string& stream) const;

private:
    struct Import {
        std::string broker;
        StreamDescription source;
        std::unique_ptr<RemoteTransfer> transfer;  // null: the first answer is awaited
        std::uint64_t run = 0;                     // of the transfer; unlike for any two
        std::vector<Done> waiting;
        bool live = false;
        bool linked = false;
        bool asking = false;
        TimePoint asked;
        TimePoint begun;  // of the transfer
        std::string last_logged;
        TransferCounters before;      // of earlier transfers
        std::int32_t deadline_s = 0;  // the shortest of the subscribers'; 0: none
        std::uint64_t deadlines_missed = 0;
        std::uint64_t samples_seen = 0;
        TimePoint sample_seen;
        TransferRates rates;
    };
    void Ask(const std::string& stream, Import& import);
    void Answered(const std::string& stream, std::uint64_t run, const Answer& answer);
    Verdict Begin(const std::string& stream, Import& import, const StreamDescription& source);
    void Follow(const std::string& stream, Import& import, const StreamDescription& source);
    void Lose(const std::string& stream, Import& import, const std::string& why);
    void LogOnce(const std::string& stream, Import& import, const std::string& what);
    void Refuse(const std::string& stream, Import& import, const Verdict& verdict, bool local);
    bool Supervise(const std::string& stream, Import& import);
    void WatchDeadline(Import& import);
    ExportGroup& ExportOf(const std::string& stream);
    std::string Export(const std::string& stream, ExportGroup& group,
                       const StreamDescription& source);
    void Retire(std::unique_ptr<RemoteTransfer>& transfer, TransferCounters& before);

    const std::string id_;
    const std::string name_;
    StreamRegistry& registry_;
    const SupervisedTime& time_;
    const Calls calls_;
    os::ThreadBound thread_;
    std::map<std::string, Import> imports_;       // by stream
    std::map<std::string, ExportGroup> exports_;  // by stream
    std::uint64_t runs_ = 0;
};

}  // namespace kvo::brokerd
