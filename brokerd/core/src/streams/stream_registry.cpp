#include "streams/stream_registry.h"

#include "streams/publisher_key.h"
#include "streams/stream_name.h"

#include <algorithm>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace kvo::brokerd {
namespace {

constexpr std::int32_t kNotRegistered = -1;
constexpr std::size_t kReapedAtOnce = 64;
constexpr std::chrono::seconds kDepartureGrace{5};

bool HoldsSample(const StreamFile& file) {
    return file.writer_state().newest_sequence > 0;
}

}  // namespace

StreamRegistry::StreamRegistry(const Settings& settings, StreamFiles& files,
                               const Processes& processes, const SupervisedTime& time,
                               Notify notify, Log log)
    : settings_(settings),
      admission_(settings.max_streams),
      files_(files),
      processes_(processes),
      time_(time),
      notify_(std::move(notify)),
      log_(std::move(log)) {}

void StreamRegistry::Adopt(std::vector<std::unique_ptr<StreamFile>> files) {
    for (auto& file : files) {
        const std::string name = file->stream();
        log_(2, "stream " + Quoted(name) + " has a living writer and waits for it");
        streams_[name].file = std::move(file);
    }
}

void StreamRegistry::set_settings(const Settings& settings) {
    settings_ = settings;
    admission_.set_max_streams(settings.max_streams);
}

// Number 0: nobody has the writer's role, or its holder lives.
ProcessTag StreamRegistry::DeadWriterOf(const StreamFile& file) const {
    const ProcessTag writer = file.writer_state().writer;
    return files_.WriterLives(file) ? ProcessTag{} : writer;
}

Client::State StreamRegistry::JudgePublisher(Stream& stream) const {
    Client& client = stream.publisher->client;
    const Client::State state = Judge(client);
    if (!client.awaits_process()) {
        return state;
    }
    // One that died before its lock byte was first looked for is not to be found by it any more,
    // but the role that it took in the file names it still.
    const ProcessTag dead = DeadWriterOf(*stream.file);
    return dead.number != 0 && dead != stream.publisher->dead_writer ? Client::State::kDead : state;
}

// Judged now, not by the last sweep: the name of a dead publisher is free at once.
bool StreamRegistry::HasLivingPublisher(const std::string& name, Stream& stream) {
    if (!stream.publisher) {
        return false;
    }
    if (JudgePublisher(stream) == Client::State::kDead) {
        EndPublisher(name, stream, "its process has died");
        return false;
    }
    return true;
}

bool StreamRegistry::KnowsKey(const Stream& stream, const std::string& key) const {
    if (key.empty()) {
        return false;
    }
    if (stream.publisher) {
        return SameKey(stream.publisher->key, key);
    }
    return stream.file != nullptr && stream.file->key_digest() == DigestKey(key);
}

Verdict StreamRegistry::AddPublisher(const std::string& identity, const Publication& publication) {
    const std::string& name = publication.stream;
    const auto known = streams_.find(name);
    if (Verdict verdict = admission_.OfPublisher(name, known != streams_.end(), streams_.size());
        verdict.refused()) {
        return verdict;
    }
    StreamGeometry geometry;
    try {
        geometry = files_.Plan(publication.sample_bytes, publication.samples);
    } catch (const std::invalid_argument& error) {
        return {kIllFormedGeometry, "stream " + Quoted(name) + ": " + error.what()};
    }
    if (known != streams_.end()) {
        Stream& stream = known->second;
        if (stream.import) {
            return {kStreamInUse,
                    "stream " + Quoted(name) + " is imported from " + stream.import->broker};
        }
        if (KnowsKey(stream, publication.key)) {
            const bool same_shape =
                stream.file != nullptr && !stream.file->writer_state().retired &&
                stream.file->geometry().max_payload_bytes == geometry.max_payload_bytes &&
                stream.file->geometry().retained_samples == geometry.retained_samples;
            return same_shape ? Resume(identity, publication, stream)
                              : Begin(identity, publication, geometry);
        }
        if (HasLivingPublisher(name, stream)) {
            return {kStreamInUse, "stream " + Quoted(name) + " has a publisher"};
        }
        if (stream.file != nullptr && !stream.file->writer_state().retired &&
            files_.WriterLives(*stream.file)) {
            return {kShmFileExists, "the file of stream " + Quoted(name) +
                                        " is written by a process that has not registered again: " +
                                        stream.file->path()};
        }
    }
    return Begin(identity, publication, geometry);
}

// The publisher of before goes on in its segment: same epoch, same sequence.
Verdict StreamRegistry::Resume(const std::string& identity, const Publication& publication,
                               Stream& stream) {
    stream.publisher =
        Publisher{Client(identity, publication.user, time_.Now()), publication.key,
                  DeadWriterOf(*stream.file), publication.latency_ms, publication.deadline_s};
    stream.removal_due.reset();
    log_(2, "stream " + Quoted(publication.stream) + ": publisher registered again");
    notify_(publication.stream, PUB_REG);
    if (HoldsSample(*stream.file)) {
        notify_(publication.stream, NEW_DATA);
    }
    return {};
}

Verdict StreamRegistry::Begin(const std::string& identity, const Publication& publication,
                              const StreamGeometry& geometry) {
    const std::string& name = publication.stream;
    const std::string stream_text = "stream " + Quoted(name);
    if (Verdict verdict = QuotaOf(identity, publication.user, name, geometry.total_bytes());
        verdict.refused()) {
        return verdict;
    }
    if (const std::uint64_t available = files_.AvailableBytes();
        geometry.total_bytes() > available) {
        return {kNotEnoughMemory, stream_text + " needs " + std::to_string(geometry.total_bytes()) +
                                      " bytes of shared memory, " + std::to_string(available) +
                                      " are available"};
    }
    const std::string key = publication.key.empty() ? DrawPublisherKey() : publication.key;
    const auto [place, added] = streams_.try_emplace(name);
    Stream& stream = place->second;
    try {
        stream.file = files_.Create(name, geometry, key, publication.checksum, stream.file);
    } catch (const std::system_error& error) {
        if (added) {
            streams_.erase(place);
        }
        if (error.code() == std::errc::no_space_on_device) {
            return {kNotEnoughMemory, stream_text + ": " + error.what()};
        }
        throw;
    }
    stream.publisher = Publisher{Client(identity, publication.user, time_.Now()),
                                 key,
                                 {},
                                 publication.latency_ms,
                                 publication.deadline_s};
    stream.removal_due.reset();
    log_(2, stream_text + ": publisher registered, " + std::to_string(publication.samples) +
                " samples of " + std::to_string(publication.sample_bytes) + " bytes");
    notify_(name, PUB_REG);
    return {};
}

template <class Counts>
Usage StreamRegistry::UsageOf(Counts counts, const std::string& except) const {
    Usage usage;
    for (const auto& [name, stream] : streams_) {
        if (name == except) {
            continue;
        }
        const bool publishes = stream.publisher && counts(stream.publisher->client);
        if (publishes && stream.file != nullptr) {
            usage.bytes += stream.file->geometry().total_bytes();
        }
        usage.streams +=
            publishes || std::any_of(stream.subscribers.begin(), stream.subscribers.end(),
                                     [&](const auto& entry) { return counts(entry.second); });
    }
    return usage;
}

Verdict StreamRegistry::QuotaOf(const std::string& identity, const std::string& user,
                                const std::string& stream, std::uint64_t bytes) const {
    const Usage asked{1, bytes};
    std::string fault;
    if (settings_.per_client.limits()) {
        const auto is_client = [&](const Client& client) { return client.Is(identity); };
        fault = settings_.per_client.WhyNot("this process", UsageOf(is_client, stream), asked);
    }
    if (fault.empty() && settings_.per_user.limits()) {
        const auto is_user = [&](const Client& client) { return client.user() == user; };
        fault = settings_.per_user.WhyNot(user, UsageOf(is_user, stream), asked);
    }
    return fault.empty() ? Verdict{}
                         : Verdict{kLimitReached, "stream " + Quoted(stream) + ": " + fault};
}

void StreamRegistry::EndPublisher(const std::string& name, Stream& stream, const std::string& why) {
    log_(2, "stream " + Quoted(name) + ": publisher unregistered, " + why);
    stream.publisher.reset();
    if (stream.file != nullptr) {
        stream.file->Retire();
        stream.removal_due = time_.Now() + settings_.removal_grace;
    }
    notify_(name, PUB_UNREG);
}

Verdict StreamRegistry::RemovePublisher(const std::string& identity, const std::string& name) {
    Stream* const stream = StreamOf(identity, name);
    if (stream == nullptr) {
        return {kNotRegistered,
                "the caller does not publish " + Quoted(name) + " and cannot remove it"};
    }
    EndPublisher(name, *stream, "by itself");
    return {};
}

Verdict StreamRegistry::EndStream(const std::string& name, const std::string& caller) {
    const auto found = streams_.find(name);
    if (found == streams_.end() || !HasLivingPublisher(name, found->second)) {
        return {kNotRegistered, "stream " + Quoted(name) + " has no publisher of this host to end"};
    }
    EndPublisher(name, found->second, "by " + caller);
    return {};
}

Verdict StreamRegistry::CheckSubscriber(const std::string& identity, const std::string& uuid,
                                        const std::string& name, const std::string& user) const {
    if (Verdict verdict =
            admission_.OfSubscriber(name, uuid, streams_.count(name) != 0, streams_.size());
        verdict.refused()) {
        return verdict;
    }
    return QuotaOf(identity, user, name, 0);
}

Verdict StreamRegistry::AddSubscriber(const std::string& identity, const std::string& uuid,
                                      const std::string& name, const std::string& user) {
    if (Verdict verdict = CheckSubscriber(identity, uuid, name, user); verdict.refused()) {
        return verdict;
    }
    streams_[name].subscribers.insert_or_assign(uuid, Client(identity, user, time_.Now()));
    subscriptions_[uuid].insert(name);
    return {};
}

Verdict StreamRegistry::RemoveSubscriber(const std::string& identity, const std::string& name,
                                         const std::string& uuid) {
    const auto found = streams_.find(name);
    const auto subscriber =
        found == streams_.end() ? SubscriberMap::iterator() : found->second.subscribers.find(uuid);
    if (found == streams_.end() || subscriber == found->second.subscribers.end()) {
        return {kNotRegistered, "stream " + Quoted(name) + " has no subscriber " + Quoted(uuid)};
    }
    if (!subscriber->second.Is(identity)) {
        return {kNotRegistered, "subscriber " + Quoted(uuid) + " of stream " + Quoted(name) +
                                    " is of another process"};
    }
    found->second.subscribers.erase(subscriber);
    ForgetSubscription(uuid, name);
    departed_[uuid] = time_.Now() + kDepartureGrace;
    if (found->second.unused()) {
        streams_.erase(found);
    }
    return {};
}

void StreamRegistry::ForgetSubscription(const std::string& uuid, const std::string& name) {
    const auto found = subscriptions_.find(uuid);
    found->second.erase(name);
    if (found->second.empty()) {
        subscriptions_.erase(found);
    }
}

void StreamRegistry::Beat(const std::string& identity, const std::string& id) {
    bool known = false;
    const auto beat = [&](Client& client) {
        if (client.Is(identity)) {
            client.Beat(time_.Now());
            known = true;
        }
    };
    if (const auto found = streams_.find(id); found != streams_.end() && found->second.publisher) {
        beat(found->second.publisher->client);
    }
    if (const auto found = subscriptions_.find(id); found != subscriptions_.end()) {
        for (const std::string& name : found->second) {
            beat(streams_.at(name).subscribers.at(id));
        }
    }
    // A client takes its leave before it ends its heartbeats.
    if (!known && departed_.count(id) == 0) {
        throw std::runtime_error("heartbeat of " + Quoted(id) +
                                 ": the caller has registered nothing under this id");
    }
}

StreamRegistry::Stream* StreamRegistry::StreamOf(const std::string& identity,
                                                 const std::string& name) {
    const auto found = streams_.find(name);
    const bool owned = found != streams_.end() && found->second.publisher &&
                       found->second.publisher->client.Is(identity);
    return owned ? &found->second : nullptr;
}

void StreamRegistry::NewData(const std::string& identity, const std::string& name) {
    if (StreamOf(identity, name) != nullptr) {
        notify_(name, NEW_DATA);
    }
}

void StreamRegistry::Written(const std::string& identity, const std::string& name,
                             std::int64_t written_ms) {
    Stream* const stream = StreamOf(identity, name);
    if (stream != nullptr && written_ms > 0) {
        stream->last_write_ms = static_cast<std::uint64_t>(written_ms);
    }
}

void StreamRegistry::Listening(const std::string& name) {
    const auto found = streams_.find(name);
    // Whether or not its publisher is there just now: what it has written can be read.
    if (found != streams_.end() && found->second.file != nullptr &&
        HoldsSample(*found->second.file)) {
        notify_(name, NEW_DATA);
    }
}

std::string StreamRegistry::KeyFor(const std::string& identity, const std::string& name) const {
    const auto found = streams_.find(name);
    if (found == streams_.end() || !found->second.publisher ||
        !found->second.publisher->client.Is(identity)) {
        throw std::runtime_error("the caller does not publish " + Quoted(name));
    }
    return found->second.publisher->key;
}

bool StreamRegistry::IsPublished(const std::string& name) {
    const auto found = streams_.find(name);
    return found != streams_.end() && HasLivingPublisher(name, found->second);
}

bool StreamRegistry::IsTaken(const std::string& name) {
    const auto found = streams_.find(name);
    return found != streams_.end() &&
           (found->second.import || HasLivingPublisher(name, found->second));
}

StreamDescription StreamRegistry::Describe(const std::string& name) {
    StreamDescription description;
    const auto found = streams_.find(name);
    if (found == streams_.end() || !HasLivingPublisher(name, found->second)) {
        return description;
    }
    const Stream& stream = found->second;
    const StreamGeometry& geometry = stream.file->geometry();
    description.published = true;
    description.epoch = stream.file->epoch();
    description.max_payload_bytes = geometry.max_payload_bytes;
    description.retained_samples = geometry.retained_samples;
    description.checksum = stream.file->asks_for_checksums();
    description.latency_ms = stream.publisher->latency_ms;
    description.deadline_s = stream.publisher->deadline_s;
    return description;
}

Verdict StreamRegistry::BeginImport(const std::string& name, const std::string& broker,
                                    std::uint32_t sample_bytes, std::uint32_t samples,
                                    bool checksum) {
    const auto known = streams_.find(name);
    if (Verdict verdict = admission_.OfPublisher(name, known != streams_.end(), streams_.size());
        verdict.refused()) {
        return verdict;
    }
    if (known != streams_.end() && !known->second.import) {
        Stream& stream = known->second;
        if (HasLivingPublisher(name, stream) ||
            (stream.file != nullptr && !stream.file->writer_state().retired &&
             files_.WriterLives(*stream.file))) {
            return {kStreamInUse, "stream " + Quoted(name) +
                                      " has a publisher of this host, so it cannot be " +
                                      "imported from " + broker};
        }
    }
    const std::string stream_text = "stream " + Quoted(name) + " of " + broker;
    try {
        // What is too large for the type comes out negative, and is refused as that.
        const StreamGeometry geometry = files_.Plan(static_cast<std::int32_t>(sample_bytes),
                                                    static_cast<std::int32_t>(samples));
        if (const std::uint64_t available = files_.AvailableBytes();
            geometry.total_bytes() > available) {
            return {kNotEnoughMemory, stream_text + " needs " +
                                          std::to_string(geometry.total_bytes()) +
                                          " bytes of shared memory here, " +
                                          std::to_string(available) + " are available"};
        }
        std::unique_ptr<StreamFile> none;
        auto& before = known == streams_.end() ? none : known->second.file;
        auto file = files_.Create(name, geometry, DrawPublisherKey(), checksum, before);
        streams_[name].file = std::move(file);
    } catch (const std::invalid_argument& error) {
        return {kIllFormedGeometry, stream_text + ": " + error.what()};
    } catch (const std::system_error& error) {
        return {kNotEnoughMemory, stream_text + ": " + error.what()};
    }
    Stream& stream = streams_[name];
    stream.import = Import{broker, true};
    stream.removal_due.reset();
    log_(2, stream_text + ": imported from now on");
    notify_(name, PUB_REG);
    return {};
}

void StreamRegistry::ImportLost(const std::string& name, const std::string& why) {
    Import& import = *streams_.at(name).import;
    if (std::exchange(import.live, false)) {
        log_(3, "stream " + Quoted(name) + " of " + import.broker + " is out of reach: " + why);
        notify_(name, PUB_UNREG);
    }
}

void StreamRegistry::ImportBack(const std::string& name) {
    Stream& stream = streams_.at(name);
    if (!std::exchange(stream.import->live, true)) {
        log_(2, "stream " + Quoted(name) + " of " + stream.import->broker + " is back");
        notify_(name, PUB_REG);
        if (HoldsSample(*stream.file)) {
            notify_(name, NEW_DATA);
        }
    }
}

void StreamRegistry::EndImport(const std::string& name) {
    const auto found = streams_.find(name);
    if (found == streams_.end()) {
        return;
    }
    if (std::exchange(found->second.import->live, false)) {
        notify_(name, PUB_UNREG);
    }
    found->second.import.reset();
    RemoveFile(name, found->second);
    if (found->second.unused()) {
        streams_.erase(found);
    }
}

std::size_t StreamRegistry::Subscribers(const std::string& name) const {
    const auto found = streams_.find(name);
    return found == streams_.end() ? 0 : found->second.subscribers.size();
}

std::vector<std::string> StreamRegistry::Published() {
    std::vector<std::string> names;
    for (auto& [name, stream] : streams_) {
        if (HasLivingPublisher(name, stream)) {
            names.push_back(name);
        }
    }
    return names;
}

StreamState StreamRegistry::StateOf(const std::string& name, const Stream& stream) const {
    StreamState state;
    state.name = name;
    state.published = stream.publisher.has_value();
    if (stream.import) {
        state.remote_broker = stream.import->broker;
        state.remote_live = stream.import->live;
    }
    state.subscribers = stream.subscribers.size();
    state.last_write_ms = stream.last_write_ms;
    state.path = files_.PathOf(name);
    if (stream.file != nullptr) {
        const WriterState writer = stream.file->writer_state();
        const StreamGeometry& geometry = stream.file->geometry();
        state.last_write_ms = std::max(state.last_write_ms, writer.last_write_ms);
        state.samples = writer.written;
        state.payload_bytes = writer.payload_bytes;
        state.dropped = writer.dropped + writer.discarded;
        state.epoch = stream.file->epoch();
        state.max_payload_bytes = geometry.max_payload_bytes;
        state.retained_samples = geometry.retained_samples;
        state.file_bytes = geometry.total_bytes();
    }
    return state;
}

std::optional<StreamState> StreamRegistry::StateOf(const std::string& name) const {
    const auto found = streams_.find(name);
    return found == streams_.end() ? std::nullopt : std::optional(StateOf(name, found->second));
}

std::vector<StreamState> StreamRegistry::Streams() const {
    std::vector<StreamState> states;
    for (const auto& [name, stream] : streams_) {
        states.push_back(StateOf(name, stream));
    }
    return states;
}

std::vector<ClientState> StreamRegistry::Clients() const {
    std::vector<ClientState> states;
    const auto add = [&](const std::string& id, bool publisher, const std::string& stream,
                         const Client& client) {
        const auto silent = time_.Now() - client.beat();
        states.push_back(
            {id, publisher, stream, client.stalled(),
             static_cast<std::uint64_t>(
                 std::chrono::duration_cast<std::chrono::milliseconds>(silent).count())});
    };
    for (const auto& [name, stream] : streams_) {
        if (stream.publisher) {
            add(name, true, name, stream.publisher->client);
        }
        for (const auto& [uuid, client] : stream.subscribers) {
            add(uuid, false, name, client);
        }
    }
    return states;
}

void StreamRegistry::RemoveFile(const std::string& name, Stream& stream) {
    stream.removal_due.reset();
    files_.Remove(std::move(stream.file));
    log_(2, "stream " + Quoted(name) + ": file removed");
    notify_(name, SHM_DEL);
}

void StreamRegistry::SuperviseStream(const std::string& name, Stream& stream) {
    if (stream.publisher) {
        const bool stalled = stream.publisher->client.stalled();
        switch (JudgePublisher(stream)) {
            case Client::State::kAlive:
            case Client::State::kStalled:
                TellStalled("stream " + Quoted(name) + ": its publisher", stalled,
                            stream.publisher->client);
                break;
            case Client::State::kDead:
                EndPublisher(name, stream, "its process has died");
                break;
            case Client::State::kSilent:
                EndPublisher(name, stream, "its heartbeats have ended");
                break;
        }
    } else if (stream.file != nullptr && !stream.import && !stream.removal_due &&
               !files_.WriterLives(*stream.file)) {
        // Left by an earlier broker, and its writer never came back.
        stream.file->Retire();
        RemoveFile(name, stream);
    }
    for (auto entry = stream.subscribers.begin(); entry != stream.subscribers.end();) {
        const bool stalled = entry->second.stalled();
        const Client::State state = Judge(entry->second);
        if (state == Client::State::kAlive || state == Client::State::kStalled) {
            TellStalled("stream " + Quoted(name) + ": subscriber " + Quoted(entry->first), stalled,
                        entry->second);
            ++entry;
            continue;
        }
        log_(2, "stream " + Quoted(name) + ": subscriber " + Quoted(entry->first) + " is gone");
        ForgetSubscription(entry->first, name);
        entry = stream.subscribers.erase(entry);
    }
    if (stream.removal_due && time_.Now() >= *stream.removal_due) {
        RemoveFile(name, stream);
    }
}

void StreamRegistry::TellStalled(const std::string& what, bool before, const Client& client) const {
    if (client.stalled() && !before) {
        log_(3, what + " is stalled: no heartbeat and no connection, but its process lives");
    } else if (before && !client.stalled()) {
        log_(2, what + " answers again");
    }
}

// A publisher takes its file right after its registration. One whose connection ends before has
// died or given up; alive, it registers again with its next connection.
void StreamRegistry::Lost(const std::string& identity) {
    for (auto& [name, stream] : streams_) {
        if (stream.publisher && stream.publisher->client.Is(identity) &&
            JudgePublisher(stream) != Client::State::kDead &&
            stream.publisher->client.awaits_process()) {
            EndPublisher(name, stream, "it left before it took its file");
        }
    }
}

void StreamRegistry::Drain() {
    admission_.Close();
    for (auto& [name, stream] : streams_) {
        if (stream.publisher) {
            EndPublisher(name, stream, "the broker is being drained");
        }
        stream.import.reset();
        if (stream.file != nullptr) {
            stream.file->Retire();
            RemoveFile(name, stream);
        }
        stream.subscribers.clear();
    }
    subscriptions_.clear();
    streams_.clear();
}

void StreamRegistry::Supervise() {
    for (auto entry = streams_.begin(); entry != streams_.end();) {
        SuperviseStream(entry->first, entry->second);
        entry = entry->second.unused() ? streams_.erase(entry) : std::next(entry);
    }
    std::erase_if(departed_, [this](const auto& entry) { return time_.Now() >= entry.second; });
    files_.ForgetUnused();
}

void StreamRegistry::ReapSome() {
    auto entry = streams_.upper_bound(last_reaped_);
    for (std::size_t i = 0; i < std::min(kReapedAtOnce, streams_.size()); ++i) {
        if (entry == streams_.end()) {
            entry = streams_.begin();
        }
        if (entry->second.file != nullptr) {
            files_.ReapDeadReaders(*entry->second.file);
        }
        last_reaped_ = entry->first;
        ++entry;
    }
}

void StreamRegistry::Leave() {
    for (auto& [name, stream] : streams_) {
        if (stream.file != nullptr && !files_.InUse(*stream.file)) {
            files_.Remove(std::move(stream.file));
        }
    }
    streams_.clear();
}

}  // namespace kvo::brokerd
