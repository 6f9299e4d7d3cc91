#include "streams/stream_registry.h"

#include "streams/stream_name.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <utility>

namespace kvo::brokerd {
namespace {

StreamState MakeState(const StreamName& name, const Stream& stream, const StreamFiles& files) {
    StreamState state;
    state.name = name.text();
    state.published = stream.publisher.has_value();
    if (stream.import) {
        state.remote_broker = stream.import->broker;
        state.remote_live = stream.import->live;
    }
    state.subscribers = stream.subscribers.size();
    state.last_write_ms = stream.last_write_ms;
    state.path = files.PathOf(name);
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

}  // namespace

StreamRegistry::StreamRegistry(const RegistrySettings& settings, StreamFiles& files,
                               const Processes& processes, const SupervisedTime& time,
                               StreamTable::Notify notify, StreamTable::Log log)
    : table_(settings, files, processes, time, std::move(notify), std::move(log)) {}

void StreamRegistry::Adopt(std::vector<std::unique_ptr<StreamFile>> files) {
    for (auto& file : files) {
        const StreamName name(file->stream());
        table_.LogInfo(name, "has a living writer, which has to register again");
        table_.FindOrAdd(name).file = std::move(file);
    }
}

void StreamRegistry::OnHeartbeat(const ClientIdentity& caller, std::string_view id) {
    const bool publishes = publishers_.OnHeartbeat(caller, StreamName(std::string(id)));
    const bool subscribes = subscribers_.OnHeartbeat(caller, SubscriberId(std::string(id)));
    if (!publishes && !subscribes) {
        throw std::runtime_error("heartbeat of " + Quoted(id) +
                                 ": the caller has registered nothing under this id");
    }
}

// Whether or not its publisher is there just now: what it has written can be read.
void StreamRegistry::OnSubscription(const StreamName& name) const {
    const Stream* const stream = table_.Find(name);
    if (stream != nullptr && stream->holds_sample()) {
        table_.Tell(name, NEW_DATA);
    }
}

bool StreamRegistry::IsTaken(const StreamName& name) {
    Stream* const stream = table_.Find(name);
    return stream != nullptr && (stream->import || publishers_.HasLiving(name, *stream));
}

std::optional<StreamState> StreamRegistry::StateOf(const StreamName& name) const {
    const Stream* const stream = table_.Find(name);
    return stream == nullptr ? std::nullopt
                             : std::optional(MakeState(name, *stream, table_.files()));
}

std::vector<StreamState> StreamRegistry::Streams() const {
    std::vector<StreamState> states;
    for (const auto& [name, stream] : table_.streams()) {
        states.push_back(MakeState(name, stream, table_.files()));
    }
    return states;
}

std::vector<ClientState> StreamRegistry::Clients() const {
    std::vector<ClientState> states;
    const auto add = [&](const std::string& id, bool publisher, const StreamName& stream,
                         const Client& client) {
        const auto silent = std::chrono::duration_cast<std::chrono::milliseconds>(
            table_.Now() - client.heartbeat());
        states.push_back({id, publisher, stream.text(), client.stalled(),
                          static_cast<std::uint64_t>(silent.count())});
    };
    for (const auto& [name, stream] : table_.streams()) {
        if (stream.publisher) {
            add(name.text(), true, name, stream.publisher->client);
        }
        for (const auto& [subscriber, client] : stream.subscribers) {
            add(subscriber.text(), false, name, client);
        }
    }
    return states;
}

void StreamRegistry::Drain() {
    admission_.Close();
    for (auto& [name, stream] : table_.streams()) {
        if (stream.publisher) {
            publishers_.Unregister(name, stream, "the broker is being drained");
        }
        stream.import.reset();
        if (stream.file != nullptr) {
            stream.file->Retire();
            table_.RemoveFile(name, stream);
        }
    }
    subscribers_.Clear();
    table_.EraseUnused();
}

void StreamRegistry::Shutdown() {
    for (auto& [name, stream] : table_.streams()) {
        if (stream.file != nullptr && !table_.files().InUse(*stream.file)) {
            table_.files().Remove(std::move(stream.file));
        }
    }
    table_.streams().clear();
}

}  // namespace kvo::brokerd
