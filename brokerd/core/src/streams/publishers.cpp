#include "streams/publishers.h"

#include "streams/publisher_key.h"
#include "streams/stream_name.h"

#include <cassert>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace kvo::brokerd {
namespace {

constexpr std::int32_t kNotRegistered = -1;

bool KnowsKey(const Stream& stream, const std::string& key) {
    if (key.empty()) {
        return false;
    }
    if (stream.publisher) {
        return SameKey(stream.publisher->key, key);
    }
    return stream.file != nullptr && stream.file->key_digest() == DigestKey(key);
}

bool HasGeometry(const Stream& stream, const StreamGeometry& geometry) {
    return stream.file != nullptr && !stream.file->writer_state().retired &&
           stream.file->geometry().max_payload_bytes == geometry.max_payload_bytes &&
           stream.file->geometry().retained_samples == geometry.retained_samples;
}

}  // namespace

Verdict Publishers::Add(const Registrant& registrant, const PublisherRequest& request) {
    const StreamName& name = request.stream;
    if (Verdict verdict = admission_.CheckPublisher(name); verdict.refused()) {
        return verdict;
    }
    StreamGeometry geometry;
    try {
        geometry = table_.files().Plan(request.max_payload_bytes, request.retained_samples);
    } catch (const std::invalid_argument& error) {
        return {kIllFormedGeometry, Titled(name) + ": " + error.what()};
    }
    if (Stream* const stream = table_.Find(name); stream != nullptr) {
        if (stream->import) {
            return {kStreamInUse, Titled(name) + " is imported from " + stream->import->broker};
        }
        if (KnowsKey(*stream, request.key)) {
            return HasGeometry(*stream, geometry) ? Resume(registrant, request, *stream)
                                                  : Begin(registrant, request, geometry);
        }
        if (HasLiving(name, *stream)) {
            return {kStreamInUse, Titled(name) + " has a publisher"};
        }
        if (table_.HasLivingWriter(*stream)) {
            return {kShmFileExists, "the file of " + Titled(name) +
                                        " is written by a process that has not registered again: " +
                                        stream->file->path()};
        }
    }
    return Begin(registrant, request, geometry);
}

// The publisher goes on in its segment: same epoch, same sequence.
Verdict Publishers::Resume(const Registrant& registrant, const PublisherRequest& request,
                           Stream& stream) {
    Register(registrant, request, stream, request.key, DeadWriterOf(*stream.file));
    table_.LogInfo(request.stream, "publisher registered again");
    table_.Tell(request.stream, PUB_REG);
    if (stream.holds_sample()) {
        table_.Tell(request.stream, NEW_DATA);
    }
    return {};
}

Verdict Publishers::Begin(const Registrant& registrant, const PublisherRequest& request,
                          const StreamGeometry& geometry) {
    const StreamName& name = request.stream;
    const std::uint64_t requested = geometry.total_bytes();
    if (Verdict verdict = quotas_.Check(registrant, name, requested); verdict.refused()) {
        return verdict;
    }
    if (Verdict verdict = table_.files().CheckRoom(name, requested); verdict.refused()) {
        return verdict;
    }
    const std::string key = request.key.empty() ? DrawPublisherKey() : request.key;
    Stream& stream = table_.FindOrAdd(name);
    try {
        stream.file = table_.files().Create(name, geometry, key, request.checksum, stream.file);
    } catch (const std::system_error& error) {
        table_.EraseUnused(name);
        if (error.code() == std::errc::no_space_on_device) {
            return {kNotEnoughMemory, Titled(name) + ": " + error.what()};
        }
        throw;
    }
    Register(registrant, request, stream, key, {});
    table_.LogInfo(name, "publisher registered, " + std::to_string(request.retained_samples) +
                             " samples of " + std::to_string(request.max_payload_bytes) + " bytes");
    table_.Tell(name, PUB_REG);
    return {};
}

void Publishers::Register(const Registrant& registrant, const PublisherRequest& request,
                          Stream& stream, const std::string& key, ProcessTag dead_writer) {
    assert(!stream.import && stream.file != nullptr);
    stream.publisher = Stream::Publisher{Client(registrant, table_.Now()), key, dead_writer,
                                         request.latency_ms, request.deadline_s};
    stream.removal_due.reset();
}

Verdict Publishers::Remove(const ClientIdentity& caller, const StreamName& name) {
    Stream* const stream = Owned(caller, name);
    if (stream == nullptr) {
        return {kNotRegistered,
                "the caller does not publish " + Quoted(name) + " and cannot remove it"};
    }
    Unregister(name, *stream, "by itself");
    return {};
}

Verdict Publishers::EndStream(const StreamName& name, const std::string& caller) {
    if (!HasLiving(name)) {
        return {kNotRegistered, Titled(name) + " has no publisher of this host to end"};
    }
    Unregister(name, *table_.Find(name), "by " + caller);
    return {};
}

void Publishers::Unregister(const StreamName& name, Stream& stream, const std::string& why) {
    assert(stream.publisher);
    table_.LogInfo(name, "publisher unregistered, " + why);
    stream.publisher.reset();
    if (stream.file != nullptr) {
        stream.file->Retire();
        stream.removal_due = table_.Now() + table_.settings().removal_grace;
    }
    table_.Tell(name, PUB_UNREG);
}

Stream* Publishers::Owned(const ClientIdentity& caller, const StreamName& name) {
    Stream* const stream = table_.Find(name);
    const bool owned =
        stream != nullptr && stream->publisher && stream->publisher->client.Is(caller);
    return owned ? stream : nullptr;
}

bool Publishers::Owns(const ClientIdentity& caller, const StreamName& stream) {
    return Owned(caller, stream) != nullptr;
}

const std::string& Publishers::KeyFor(const ClientIdentity& caller, const StreamName& name) {
    const Stream* const stream = Owned(caller, name);
    if (stream == nullptr) {
        throw std::runtime_error("the caller does not publish " + Quoted(name));
    }
    return stream->publisher->key;
}

void Publishers::OnNewData(const ClientIdentity& caller, const StreamName& stream) {
    if (Owns(caller, stream)) {
        table_.Tell(stream, NEW_DATA);
    }
}

void Publishers::OnDataWritten(const ClientIdentity& caller, const StreamName& name,
                               std::int64_t written_ms) {
    Stream* const stream = Owned(caller, name);
    if (stream != nullptr && written_ms > 0) {
        stream->last_write_ms = static_cast<std::uint64_t>(written_ms);
    }
}

bool Publishers::OnHeartbeat(const ClientIdentity& caller, const StreamName& name) {
    Stream* const stream = Owned(caller, name);
    if (stream != nullptr) {
        stream->publisher->client.OnHeartbeat(table_.Now());
    }
    return stream != nullptr;
}

// A publisher takes its file right after its registration. One whose connection ends before has
// died or given up; alive, it registers again with its next connection.
void Publishers::OnDisconnect(const ClientIdentity& caller) {
    for (auto& [name, stream] : table_.streams()) {
        if (stream.publisher && stream.publisher->client.Is(caller) &&
            Judge(stream) != Client::State::kDead && stream.publisher->client.awaits_process()) {
            Unregister(name, stream, "it left before it took its file");
        }
    }
}

// Number 0: the writer's role is free, or its holder lives.
ProcessTag Publishers::DeadWriterOf(const StreamFile& file) const {
    const ProcessTag writer = file.writer_state().writer;
    return table_.files().WriterLives(file) ? ProcessTag{} : writer;
}

Client::State Publishers::Judge(Stream& stream) const {
    Client& client = stream.publisher->client;
    const Client::State state = table_.Judge(client);
    if (!client.awaits_process()) {
        return state;
    }
    // A process that died before its lock byte was first looked for is not found by it any more,
    // but the writer's role that it took in the file names it still.
    const ProcessTag dead = DeadWriterOf(*stream.file);
    return dead.number != 0 && dead != stream.publisher->dead_writer ? Client::State::kDead : state;
}

bool Publishers::HasLiving(const StreamName& name) {
    Stream* const stream = table_.Find(name);
    return stream != nullptr && HasLiving(name, *stream);
}

bool Publishers::HasLiving(const StreamName& name, Stream& stream) {
    if (!stream.publisher) {
        return false;
    }
    if (Judge(stream) == Client::State::kDead) {
        Unregister(name, stream, "its process has died");
        return false;
    }
    return true;
}

std::vector<std::string> Publishers::Names() {
    std::vector<std::string> names;
    for (auto& [name, stream] : table_.streams()) {
        if (HasLiving(name, stream)) {
            names.push_back(name.text());
        }
    }
    return names;
}

StreamDescription Publishers::Describe(const StreamName& name) {
    StreamDescription description;
    if (!HasLiving(name)) {
        return description;
    }
    const Stream& stream = *table_.Find(name);
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

void Publishers::Supervise(const StreamName& name, Stream& stream) {
    const bool stalled_before = stream.publisher->client.stalled();
    switch (Judge(stream)) {
        case Client::State::kAlive:
        case Client::State::kStalled:
            table_.LogStalled(name, "publisher", stalled_before, stream.publisher->client);
            break;
        case Client::State::kDead:
            Unregister(name, stream, "its process has died");
            break;
        case Client::State::kSilent:
            Unregister(name, stream, "its heartbeats have ended");
            break;
    }
}

}  // namespace kvo::brokerd
