#include "local/topic_ring_server.h"

#include "gorm/cor/errors.h"
#include "kvo/os/crash_point.h"
#include "kvo/os/hex.h"
#include "kvo/os/new_file.h"
#include "kvo/os/random_bytes.h"
#include "local/topic_ring_memory.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace gorm::cor::ps {
namespace {

namespace fs = std::filesystem;

std::uint64_t DrawNonce() {
    std::uint64_t nonce = 0;
    kvo::os::FillRandom(&nonce, sizeof nonce);
    return nonce;
}

// Where the file lies until it is complete.
std::string UnnamedPath(const std::string& events_path, std::uint64_t nonce) {
    return events_path.substr(0, events_path.size() - std::strlen(kEventsSuffix)) + "-" +
           kvo::os::ToHex(nonce) + kEventsSuffix;
}

}  // namespace

TopicRingServer::TopicRingServer(std::string events_path, kvo::os::MappedFile events,
                                 SystemVMemory signal)
    : events_path_(std::move(events_path)),
      events_(std::move(events)),
      signal_(std::move(signal)) {}

std::unique_ptr<TopicRingServer> TopicRingServer::Make(const std::string& directory,
                                                       std::string_view topic,
                                                       std::string_view notification,
                                                       const kvo::os::FileAccess& access) {
    if (topic.size() > ring::kMostPathBytes || notification.size() > ring::kMostTextBytes) {
        throw Error("topic \"" + std::string(topic) + "\" is too long for a local one");
    }
    const std::uint64_t nonce = DrawNonce();
    const std::string events_path = EventsPath(directory, topic);
    const std::string unnamed_path = UnnamedPath(events_path, nonce);
    // The server alone writes it.
    kvo::os::NewFile events(unnamed_path, sizeof(ring::EventsFile), access.mode & ~022U,
                            access.group);
    KVO_CRASH_POINT("ring's events made");
    auto& file = *reinterpret_cast<ring::EventsFile*>(events.begin());
    file.magic = ring::kMagic;
    file.version = ring::kVersion;
    file.nonce = nonce;
    file.path_bytes = static_cast<std::uint32_t>(topic.size());
    topic.copy(file.path, topic.size());
    notification.copy(file.texts[0].text, notification.size());
    // relaxed: other processes open the file after the rename.
    file.texts[0].bytes.store(static_cast<std::uint32_t>(notification.size()),
                              std::memory_order_relaxed);
    KVO_CRASH_POINT("ring's events filled");
    SystemVMemory signal =
        SystemVMemory::Create(SignalKey(directory), sizeof(ring::Signal), access);
    // relaxed: as above.
    signal.as<ring::Signal>().woken_at.store(ring::kNeverWoken, std::memory_order_relaxed);
    signal.as<ring::Signal>().nonce = nonce;
    file.signal = signal.id();
    KVO_CRASH_POINT("ring's signal made");
    if (::rename(unnamed_path.c_str(), events_path.c_str()) != 0) {
        throw std::system_error(errno, std::generic_category(), events_path);
    }
    events.Keep();
    KVO_CRASH_POINT("ring in place");
    return std::unique_ptr<TopicRingServer>(
        new TopicRingServer(events_path, events.TakeMapping(), std::move(signal)));
}

TopicRingServer::~TopicRingServer() {
    // [ring-closed] Release: a reader that loads it with acquire sees all entries. Killed before
    // it, the successor closes the ring in RemoveAll().
    events().closed.store(1, std::memory_order_release);
    KVO_CRASH_POINT("ring closed");
    signal_.Wake();
    ::unlink(events_path_.c_str());
}

std::optional<std::uint32_t> TopicRingServer::TextOf(std::string_view sample) {
    for (std::uint32_t number = 0; number < ring::kTexts; ++number) {
        ring::Text& text = events().texts[number];
        const std::uint32_t bytes =
            text.bytes.load(std::memory_order_relaxed);  // written here alone
        if (bytes == 0 && !sample.empty() && sample.size() <= sizeof text.text) {
            sample.copy(text.text, sample.size());
            KVO_CRASH_POINT("event's text copied");
            // relaxed: the entry that names the text is stored with release.
            text.bytes.store(static_cast<std::uint32_t>(sample.size()), std::memory_order_relaxed);
            return number;
        }
        if (std::string_view(text.text, std::min(bytes, ring::kMostTextBytes)) == sample) {
            return number;
        }
    }
    return std::nullopt;
}

bool TopicRingServer::Publish(std::string_view sample) {
    thread_.here();
    const auto text = TextOf(sample);
    if (!text) {
        return false;
    }
    if (*text == 0) {
        signal_.Notify();
        return true;
    }
    // [ring-entry] Release: a reader that loads the entry with acquire sees its text. Killed after
    // it, the head does not cover the entry yet: no reader uses it.
    events().entries[head_ % ring::kEntries].store(
        ring::PackEntry(head_, signal_.sequence(), *text), std::memory_order_release);
    KVO_CRASH_POINT("event entered");
    // [ring-head] Release: a reader that loads the head with acquire sees the entry. Killed after
    // it, the event counts; readers find it when they look, at the latest after a second.
    events().head.store(++head_, std::memory_order_release);
    KVO_CRASH_POINT("event published");
    signal_.Wake();
    return true;
}

std::string TopicRingServer::Position() const {
    thread_.here();
    return kvo::os::ToHex(events().nonce) + kvo::os::ToHex(head_);
}

void TopicRingServer::SetRelayed(bool relayed) {
    thread_.here();
    // [ring-relayed] Sequentially consistent, as a writer's Notify() and its load: a writer that
    // does not see it has written its sample before, and the server notifies the new subscriber
    // of what exists.
    events().relayed.store(relayed ? 1 : 0, std::memory_order_seq_cst);
}

void TopicRingServer::RemoveAll(const std::string& directory) {
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(directory, ignored)) {
        const std::string path = entry.path().string();
        if (entry.path().extension() == kEventsSuffix) {
            try {
                const kvo::os::MappedFile file =
                    MapEvents(path, kvo::os::MappedFile::Access::kWrite);
                auto& events = file.as<ring::EventsFile>();
                // [ring-closed] Release: as in the destructor.
                events.closed.store(1, std::memory_order_release);
                KVO_CRASH_POINT("dead ring closed");
                TopicSignal(AttachSignal(events, path)).Wake();
            } catch (const std::exception&) {  // half made, or not ours: it has no readers
            }
            fs::remove(entry.path(), ignored);
            KVO_CRASH_POINT("dead ring removed");
        }
    }
}

}  // namespace gorm::cor::ps
