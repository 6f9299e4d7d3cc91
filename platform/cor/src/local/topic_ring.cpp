#include "local/topic_ring.h"

#include "gorm/cor/errors.h"
#include "kvo/os/crash_point.h"
#include "kvo/os/file_access.h"
#include "kvo/os/hex.h"
#include "kvo/os/new_file.h"
#include "kvo/os/random_bytes.h"
#include "kvo/os/regular_file.h"
#include "local/runtime_directory.h"
#include "transport/log.h"

#include <xxhash.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <unistd.h>

namespace gorm::cor::ps {
namespace {

namespace fs = std::filesystem;

constexpr const char* kEventsSuffix = ".events";
constexpr int kAttempts = 5;
constexpr std::uint32_t kCountMask = (1U << 24) - 1;  // of the word's counted events

std::uint64_t DrawNonce() {
    std::uint64_t nonce = 0;
    kvo::os::FillRandom(&nonce, sizeof nonce);
    return nonce;
}

// Where it lies until it is complete.
std::string UnnamedPath(const std::string& events_path, std::uint64_t nonce) {
    return events_path.substr(0, events_path.size() - std::strlen(kEventsSuffix)) + "-" +
           kvo::os::ToHex(nonce) + kEventsSuffix;
}

struct Memory {
    kvo::os::MappedFile events;
    SharedSegment signal;
};

void DemandLayout(const ring::EventsFile& file, const std::string& path, std::string_view topic) {
    if (file.magic != ring::kMagic) {
        throw Error(path + " holds no events");
    }
    if (file.version != ring::kVersion) {
        throw Error(path + " has layout " + std::to_string(file.version) + ", not " +
                    std::to_string(ring::kVersion));
    }
    if (file.path_bytes != topic.size() || std::string_view(file.path, topic.size()) != topic) {
        throw Error(path + " is another topic's");
    }
}

kvo::os::MappedFile MapEvents(const std::string& path, kvo::os::MappedFile::Access access) {
    return kvo::os::MapTrustedFile(path, sizeof(ring::EventsFile), access);
}

SharedSegment AttachSignal(const ring::EventsFile& file, const std::string& path) {
    const std::string what = "the signal of " + path;
    try {
        SharedSegment signal = SharedSegment::Attach(file.signal, sizeof(ring::Signal));
        if (signal.as<const ring::Signal>().nonce == file.nonce) {
            return signal;
        }
    } catch (const std::exception& error) {
        throw Error(what + ": " + error.what());
    }
    throw Error(what + ": segment " + std::to_string(file.signal) +
                " is another one, or of another namespace");
}

// None: there is no ring, or one that can not be used. A server that puts a new one in place
// meanwhile makes us look again.
std::optional<Memory> OpenMemory(const std::string& directory, std::string_view topic) {
    if (topic.size() > ring::kMostPathBytes) {
        return std::nullopt;
    }
    const std::string path = EventsPath(directory, topic);
    std::string reason;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        try {
            kvo::os::MappedFile events = MapEvents(path, kvo::os::MappedFile::Access::kRead);
            KVO_CRASH_POINT("ring's events opened");
            const auto& file = events.as<const ring::EventsFile>();
            DemandLayout(file, path, topic);
            SharedSegment signal = AttachSignal(file, path);
            KVO_CRASH_POINT("ring's signal attached");
            return Memory{std::move(events), std::move(signal)};
        } catch (const std::system_error& error) {
            if (error.code() == std::errc::no_such_file_or_directory) {
                return std::nullopt;
            }
            reason = error.what();
            break;  // no permission, for instance: as it will be at the next attempt
        } catch (const std::exception& error) {
            reason = error.what();
        }
    }
    WarnOnce("no local topic, its events go over sockets: " + reason);
    return std::nullopt;
}

}  // namespace

std::string EventsPath(const std::string& directory, std::string_view topic) {
    // Only a name: the topic stands in the file and is compared.
    return directory + "/" + kvo::os::ToHex(XXH3_64bits(topic.data(), topic.size())) +
           kEventsSuffix;
}

key_t SignalKey(const std::string& directory) {
    // Never 0, which names none.
    return static_cast<key_t>(XXH3_64bits(directory.data(), directory.size()) | 1);
}

TopicRingServer::TopicRingServer(std::string events_path, kvo::os::MappedFile events,
                                 SharedSegment signal)
    : events_path_(std::move(events_path)),
      events_(std::move(events)),
      signal_(std::move(signal)) {}

std::unique_ptr<TopicRingServer> TopicRingServer::Make(const std::string& directory,
                                                       std::string_view topic,
                                                       std::string_view counted,
                                                       const kvo::os::FileAccess& access) {
    if (topic.size() > ring::kMostPathBytes || counted.size() > ring::kMostTextBytes) {
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
    counted.copy(file.texts[0].text, counted.size());
    // relaxed: the rename comes between this and whoever looks.
    file.texts[0].bytes.store(static_cast<std::uint32_t>(counted.size()),
                              std::memory_order_relaxed);
    KVO_CRASH_POINT("ring's events filled");
    SharedSegment signal =
        SharedSegment::Create(SignalKey(directory), sizeof(ring::Signal), access);
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
    // Release: who sees it sees all entries.
    events().closed.store(1, std::memory_order_release);
    KVO_CRASH_POINT("ring closed");
    signal_.Nudge();
    ::unlink(events_path_.c_str());
}

std::optional<std::uint32_t> TopicRingServer::TextOf(std::string_view sample) {
    for (std::uint32_t number = 0; number < ring::kTexts; ++number) {
        ring::Text& text = events().texts[number];
        const std::uint32_t bytes = text.bytes.load(std::memory_order_relaxed);  // own store
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
    const auto text = TextOf(sample);
    if (!text) {
        return false;
    }
    if (*text == 0) {
        signal_.Count();
        return true;
    }
    // Release, both: who sees the entry sees its text, and who sees the head sees the entry. A
    // crash before the head is stored leaves an entry that nobody looks at.
    events().entries[head_ % ring::kEntries].store(ring::PackEntry(head_, signal_.word(), *text),
                                                   std::memory_order_release);
    KVO_CRASH_POINT("event entered");
    events().head.store(++head_, std::memory_order_release);
    KVO_CRASH_POINT("event published");
    signal_.Nudge();
    return true;
}

std::string TopicRingServer::Position() const {
    return kvo::os::ToHex(events().nonce) + kvo::os::ToHex(head_);
}

void TopicRingServer::SetRelayed(bool relayed) {
    // Sequentially consistent: a writer that does not see it has counted before, and the server
    // tells whoever has just come of what is there (TopicRingWriter::relayed).
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
                events.closed.store(1, std::memory_order_release);
                KVO_CRASH_POINT("dead ring closed");
                TopicSignal(AttachSignal(events, path)).Nudge();
            } catch (const std::exception&) {  // half made, or not ours: nobody reads it
            }
            fs::remove(entry.path(), ignored);
            KVO_CRASH_POINT("dead ring removed");
        }
    }
}

std::optional<TopicRingReader> TopicRingReader::Open(const std::string& directory,
                                                     std::string_view topic) {
    auto memory = OpenMemory(directory, topic);
    if (!memory) {
        return std::nullopt;
    }
    return TopicRingReader(std::move(memory->events), std::move(memory->signal));
}

void TopicRingReader::BeginNow() {
    // The word before the head, as in Take().
    counted_ = signal_.word() >> 8;
    next_ = events().head.load(std::memory_order_acquire);
    overrun_ = counted_ != 0;
}

void TopicRingReader::BeginAt(std::string_view position) {
    BeginNow();
    std::uint64_t begin = 0;
    if (position.size() == 32 && position.substr(0, 16) == kvo::os::ToHex(events().nonce)) {
        const auto [end, error] =
            std::from_chars(position.data() + 16, position.data() + 32, begin, 16);
        begin = error == std::errc() ? begin : 0;
    }
    next_ = std::min(begin, next_);
}

[[gnu::hot]] std::string_view TopicRingReader::Text(std::uint32_t number) {
    const ring::Text& text = events().texts[number % ring::kTexts];
    // relaxed: the entry that led here was loaded with acquire.
    const std::uint32_t bytes = text.bytes.load(std::memory_order_relaxed);
    // Of our own, whatever becomes of the file. Nearly always it is the one that we have.
    if (const std::string_view there(text.text, std::min(bytes, ring::kMostTextBytes));
        there != text_) {
        text_ = there;
    }
    return text_;
}

[[gnu::hot]] std::optional<std::string_view> TopicRingReader::Take() {
    // The word before the head: an event that was counted after an entry was made is then given
    // out after that entry, since who saw the word sees the entry as well.
    const std::uint32_t word = signal_.word();
    const std::uint64_t head = events().head.load(std::memory_order_acquire);
    if (overrun_) {
        overrun_ = false;
        return Text(0);
    }
    if (next_ > head || head - next_ > ring::kEntries) {
        next_ = head < ring::kEntries ? 0 : head - ring::kEntries;
        counted_ = ring::EntryCount(
            events().entries[next_ % ring::kEntries].load(std::memory_order_acquire));
        return Text(0);
    }
    if (next_ < head) {
        const std::uint64_t entry =
            events().entries[next_ % ring::kEntries].load(std::memory_order_acquire);
        if (ring::EntryNumber(entry) != static_cast<std::uint32_t>(next_)) {
            next_ += 1;  // overwritten while we looked; the next look finds out how much is gone
            return Text(0);
        }
        // It may also have been made before events that have been given out already.
        if (const std::uint32_t count = ring::EntryCount(entry);
            count != counted_ && ((count - counted_) & kCountMask) <= kCountMask / 2) {
            counted_ = count;
            return Text(0);
        }
        ++next_;
        return Text(ring::EntryText(entry));
    }
    if (const std::uint32_t count = word >> 8; count != counted_) {
        counted_ = count;
        return Text(0);
    }
    KVO_CRASH_POINT("ring found empty");
    return std::nullopt;
}

[[gnu::hot]] bool TopicRingReader::closed() const {
    return events().closed.load(std::memory_order_acquire) != 0;
}

std::unique_ptr<TopicRingWriter> TopicRingWriter::Open(const std::string& directory,
                                                       std::string_view topic) {
    auto memory = OpenMemory(directory, topic);
    if (!memory) {
        return nullptr;
    }
    return std::unique_ptr<TopicRingWriter>(
        new TopicRingWriter(std::move(memory->events), std::move(memory->signal)));
}

[[gnu::hot]] bool TopicRingWriter::relayed() const {
    return events().relayed.load(std::memory_order_seq_cst) != 0;
}

LocalTopic::~LocalTopic() = default;

std::unique_ptr<LocalTopic> LocalTopic::Find(const std::string& host, std::uint16_t port,
                                             std::string_view path) {
    const std::string directory = IsLoopback(host) ? FindLocalTopics(port) : "";
    return directory.empty() ? nullptr : TopicRingWriter::Open(directory, path);
}

[[gnu::hot]] bool TopicRingWriter::closed() const {
    return events().closed.load(std::memory_order_acquire) != 0;
}

}  // namespace gorm::cor::ps
