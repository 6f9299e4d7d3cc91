#include "remote/remote_streams.h"

#include "remote/remote_topic_name.h"
#include "streams/stream_name.h"

#include <algorithm>
#include <exception>
#include <set>
#include <stdexcept>
#include <utility>

namespace kvo::brokerd {
namespace {

constexpr std::chrono::seconds kAskAgain{1};
// The other end of a new import shows itself within this, or there is no way for the samples.
constexpr std::chrono::seconds kLinkPatience{5};

}  // namespace

RemoteStreams::RemoteStreams(std::string id, std::string name, StreamRegistry& registry,
                             const SupervisedTime& time, Calls calls)
    : id_(std::move(id)),
      name_(std::move(name)),
      registry_(registry),
      time_(time),
      calls_(std::move(calls)) {}

void RemoteStreams::RequestImport(const std::string& broker, const std::string& stream,
                                  std::int32_t deadline_s, Done done) {
    thread_.here();
    const auto found = imports_.find(stream);
    if (found != imports_.end() && found->second.broker != broker) {
        done({kStreamInUse, "stream " + Quoted(stream) + " is imported from " +
                                found->second.broker + " already"},
             false);
        return;
    }
    if (found == imports_.end() && registry_.publishers().HasLiving(StreamName(stream))) {
        // The URI may be another name of this broker: its answer tells.
        Probe(broker, stream, [stream, broker, done](const Verdict& verdict, bool local) {
            done(local || verdict.refused()
                     ? verdict
                     : Verdict{kStreamInUse, "stream " + Quoted(stream) +
                                                 " has a publisher of this host, so it cannot " +
                                                 "be imported from " + broker},
                 local);
        });
        return;
    }
    Import& import = imports_[stream];
    import.broker = broker;
    if (deadline_s > 0) {
        import.deadline_s =
            import.deadline_s == 0 ? deadline_s : std::min(import.deadline_s, deadline_s);
    }
    if (import.transfer != nullptr) {
        done({}, false);
        return;
    }
    import.waiting.push_back(std::move(done));
    if (!import.asking) {
        Ask(stream, import);
    }
}

void RemoteStreams::Probe(const std::string& broker, const std::string& stream, Done done) {
    thread_.here();
    calls_.ask(broker, stream, false, [this, broker, stream, done](const Answer& answer) {
        if (answer.verdict.refused()) {
            done(answer.verdict, false);
            return;
        }
        const bool local = answer.description.broker == id_;
        const bool there = local ? registry_.publishers().HasLiving(StreamName(stream))
                                 : answer.description.published;
        done(there ? Verdict{}
                   : Verdict{kNoRemoteStream, "the broker " + broker +
                                                  " has no publisher of stream " + Quoted(stream)},
             local);
    });
}

void RemoteStreams::Ask(const std::string& stream, Import& import) {
    import.asking = true;
    import.asked = time_.Now();
    if (import.run == 0) {
        import.run = ++runs_;
    }
    calls_.ask(import.broker, stream, true, [this, stream, run = import.run](const Answer& answer) {
        Answered(stream, run, answer);
    });
}

// An import that has been live before is retried as long as it has subscribers.
void RemoteStreams::Refuse(const std::string& stream, Import& import, const Verdict& verdict,
                           bool local) {
    const auto waiting = std::exchange(import.waiting, {});
    if (import.source.epoch == 0) {
        imports_.erase(stream);
    } else {
        LogOnce(stream, import, verdict.reason);
    }
    for (const Done& done : waiting) {
        done(verdict, local);
    }
}

void RemoteStreams::Answered(const std::string& stream, std::uint64_t run, const Answer& answer) {
    const auto found = imports_.find(stream);
    if (found == imports_.end() || found->second.run != run) {
        return;  // ended or restarted meanwhile
    }
    Import& import = found->second;
    import.asking = false;
    const StreamDescription& source = answer.description;
    if (import.transfer != nullptr) {
        if (!answer.verdict.refused()) {
            Follow(stream, import, source);
        } else if (!import.linked) {
            Lose(stream, import, answer.verdict.reason);
        } else {
            LogOnce(stream, import, answer.verdict.reason);
        }
        return;
    }
    Verdict verdict = answer.verdict;
    const bool local = !verdict.refused() && source.broker == id_;
    if (!verdict.refused() && !local) {
        verdict =
            source.published && !source.topic.empty()
                ? Begin(stream, import, source)
                : Verdict{kNoRemoteStream, "the broker " + import.broker +
                                               " has no publisher of stream " + Quoted(stream)};
    }
    if (verdict.refused() || local) {
        Refuse(stream, import, verdict, local);
        return;
    }
    for (const Done& done : std::exchange(import.waiting, {})) {
        done(verdict, false);
    }
}

Verdict RemoteStreams::Begin(const std::string& stream, Import& import,
                             const StreamDescription& source) {
    if (Verdict verdict =
            registry_.imports().Begin(StreamName(stream), import.broker, source.max_payload_bytes,
                                      source.retained_samples, source.checksum);
        verdict.refused()) {
        return verdict;
    }
    Retire(import.transfer, import.before);
    import.run = ++runs_;
    import.source = source;
    import.linked = false;
    import.asking = false;
    try {
        import.transfer = calls_.start_import({stream, import.run, source});
    } catch (const std::exception& error) {
        import.live = false;
        registry_.imports().End(StreamName(stream));
        return {kUnknownRemoteBroker, "stream " + Quoted(stream) + " cannot be imported from " +
                                          import.broker + ": " + error.what()};
    }
    import.live = true;
    import.begun = time_.Now();
    import.asked = time_.Now();
    import.sample_seen = time_.Now();
    import.samples_seen = 0;
    import.last_logged.clear();
    return {};
}

// A live import follows the description of its stream; a lost one may return.
void RemoteStreams::Follow(const std::string& stream, Import& import,
                           const StreamDescription& source) {
    if (!source.published || source.topic.empty()) {
        Lose(stream, import, "it has no publisher there");
        return;
    }
    if (source.epoch == import.source.epoch && source.topic == import.source.topic) {
        if (!import.live && import.linked) {
            import.live = true;
            import.last_logged.clear();
            registry_.imports().OnBack(StreamName(stream));
        }
        return;
    }
    if (const Verdict verdict = Begin(stream, import, source); verdict.refused()) {
        if (import.transfer != nullptr) {  // else its file has gone with it
            Lose(stream, import, verdict.reason);
        }
        LogOnce(stream, import, verdict.reason);
    }
}

void RemoteStreams::Lose(const std::string& stream, Import& import, const std::string& why) {
    if (std::exchange(import.live, false)) {
        import.last_logged = why;
        registry_.imports().OnLost(StreamName(stream), why);
    }
}

void RemoteStreams::LogOnce(const std::string& stream, Import& import, const std::string& what) {
    if (import.last_logged != what) {
        import.last_logged = what;
        calls_.log(3, "stream " + Quoted(stream) + ": " + what);
    }
}

void RemoteStreams::Linked(const std::string& stream, std::uint64_t run, bool linked) {
    thread_.here();
    const auto found = imports_.find(stream);
    if (found == imports_.end() || found->second.run != run) {
        return;
    }
    Import& import = found->second;
    import.linked = linked;
    if (!linked) {
        Lose(stream, import, "its samples do not arrive any more");
    }
    // The publisher may be another one by now.
    if (!import.asking) {
        Ask(stream, import);
    }
}

void RemoteStreams::Outdated(const std::string& stream, std::uint64_t run) {
    thread_.here();
    const auto found = imports_.find(stream);
    if (found != imports_.end() && found->second.run == run && !found->second.asking) {
        Ask(stream, found->second);
    }
}

StreamDescription RemoteStreams::Describe(const std::string& stream, const std::string& importer) {
    thread_.here();
    StreamDescription description = registry_.publishers().Describe(StreamName(stream));
    if (importer.empty()) {
        description.broker = id_;
        return description;
    }
    if (description.published || exports_.count(stream) != 0) {
        ExportGroup& group = ExportOf(stream);
        if (!group.Request(importer, time_.Now())) {
            throw std::runtime_error("stream " + Quoted(stream) + " is exported to " +
                                     std::to_string(ExportGroup::kMostImporters) +
                                     " brokers already");
        }
        if (const std::string fault = Export(stream, group, description); !fault.empty()) {
            if (!group.sending()) {
                exports_.erase(stream);
            }
            throw std::runtime_error("stream " + Quoted(stream) + " cannot be exported: " + fault);
        }
    }
    if (description.published) {
        description.topic = TopicOf(name_, stream);
    }
    description.broker = id_;
    return description;
}

ExportGroup& RemoteStreams::ExportOf(const std::string& stream) {
    ExportGroup::Calls calls;
    calls.start = [this, stream](const std::string& importer) {
        return calls_.start_export(
            {stream, registry_.publishers().Describe(StreamName(stream)), importer});
    };
    calls.end = calls_.end;
    calls.log = [this, stream](int level, const std::string& text) {
        calls_.log(level, "stream " + Quoted(stream) + ": " + text);
    };
    return exports_.try_emplace(stream, std::move(calls)).first->second;
}

// @return the fault; empty: the stream is sent while it has a publisher.
std::string RemoteStreams::Export(const std::string& stream, ExportGroup& group,
                                  const StreamDescription& source) {
    if (!source.published) {
        group.Pause();
        return {};
    }
    const bool anew = !group.sending();
    try {
        group.Send(source.epoch);
    } catch (const std::exception& error) {
        return error.what();
    }
    if (anew) {
        calls_.log(2, "stream " + Quoted(stream) + ": exported from now on");
    }
    return {};
}

void RemoteStreams::PublisherChanged(const std::string& stream) {
    thread_.here();
    const StreamDescription source = registry_.publishers().Describe(StreamName(stream));
    if (calls_.always_exported(stream) && source.published) {
        ExportOf(stream).SendAlways();
    }
    if (const auto found = exports_.find(stream); found != exports_.end()) {
        if (const std::string fault = Export(stream, found->second, source); !fault.empty()) {
            calls_.log(4, "stream " + Quoted(stream) + " cannot be exported: " + fault);
        }
    }
}

void RemoteStreams::NewData(const std::string& stream) {
    thread_.here();
    if (const auto found = exports_.find(stream); found != exports_.end()) {
        found->second.Signal();
    }
}

void RemoteStreams::Retire(std::unique_ptr<RemoteTransfer>& transfer, TransferCounters& before) {
    if (transfer != nullptr) {
        before = TotalOf(before, transfer.get());
        calls_.end(std::move(transfer));
    }
}

void RemoteStreams::WatchDeadline(Import& import) {
    const TimePoint now = time_.Now();
    const std::uint64_t samples = import.transfer->Counters().samples;
    if (samples != import.samples_seen || !import.live) {
        import.samples_seen = samples;
        import.sample_seen = now;
    } else if (import.deadline_s > 0 && samples > 0 &&
               now - import.sample_seen > std::chrono::seconds(import.deadline_s)) {
        ++import.deadlines_missed;
        import.sample_seen = now;
    }
}

// False: the import has ended.
bool RemoteStreams::Supervise(const std::string& stream, Import& import) {
    if (!import.waiting.empty()) {
        return true;
    }
    if (registry_.subscribers().CountOf(StreamName(stream)) == 0) {
        if (import.transfer != nullptr) {
            Retire(import.transfer, import.before);
            registry_.imports().End(StreamName(stream));
        }
        return false;
    }
    const TimePoint now = time_.Now();
    if (import.transfer != nullptr) {
        if (import.live && !import.linked && now - import.begun > kLinkPatience) {
            Lose(stream, import,
                 "its samples do not arrive; check domain, interfaces and firewalls");
        }
        WatchDeadline(import);
        import.rates.Update(TotalOf(import.before, import.transfer.get()), now);
    }
    if (!import.asking && now - import.asked >= kAskAgain) {
        Ask(stream, import);
    }
    return true;
}

void RemoteStreams::Tick() {
    thread_.here();
    const TimePoint now = time_.Now();
    for (auto entry = imports_.begin(); entry != imports_.end();) {
        entry = Supervise(entry->first, entry->second) ? std::next(entry) : imports_.erase(entry);
    }
    for (auto entry = exports_.begin(); entry != exports_.end();) {
        const bool was_sending = entry->second.sending();
        if (entry->second.Tick(now)) {
            ++entry;
            continue;
        }
        if (was_sending) {
            calls_.log(2, "stream " + Quoted(entry->first) + ": not exported any more");
        }
        entry = exports_.erase(entry);
    }
}

void RemoteStreams::EndAll() {
    exports_.clear();
    for (auto& [stream, import] : std::exchange(imports_, {})) {
        const bool begun = import.transfer != nullptr;
        import.transfer.reset();
        if (begun) {
            registry_.imports().End(StreamName(stream));
        }
        for (const Done& done : import.waiting) {
            done({kLimitReached, "the broker ends"}, false);
        }
    }
}

std::vector<std::string> RemoteStreams::ConnectedBrokers() const {
    std::set<std::string> brokers;
    for (const auto& [stream, import] : imports_) {
        if (import.live) {
            brokers.insert(import.broker);
        }
    }
    for (const auto& [stream, group] : exports_) {
        if (group.sending()) {
            for (const std::string& importer : group.Importers()) {
                brokers.insert(importer);
            }
        }
    }
    return {brokers.begin(), brokers.end()};
}

std::optional<TransferCounters> RemoteStreams::Imported(const std::string& stream) const {
    const auto found = imports_.find(stream);
    if (found == imports_.end()) {
        return std::nullopt;
    }
    return TotalOf(found->second.before, found->second.transfer.get());
}

std::optional<TransferCounters> RemoteStreams::Exported(const std::string& stream) const {
    const auto found = exports_.find(stream);
    if (found == exports_.end()) {
        return std::nullopt;
    }
    return found->second.Total();
}

std::vector<RemoteStreamState> RemoteStreams::States() const {
    std::vector<RemoteStreamState> states;
    for (const auto& [stream, import] : imports_) {
        RemoteStreamState state =
            StateOf(TotalOf(import.before, import.transfer.get()), import.rates);
        state.broker = import.broker;
        state.stream = stream;
        state.import = true;
        state.live = import.live;
        state.deadlines_missed = import.deadlines_missed;
        states.push_back(state);
    }
    for (const auto& [stream, group] : exports_) {
        for (RemoteStreamState& state : group.States()) {
            state.stream = stream;
            state.import = false;
            states.push_back(std::move(state));
        }
    }
    return states;
}

}  // namespace kvo::brokerd
