#pragma once

#include "gorm/cor/ps/local_topic.h"
#include "kvo/os/file_access.h"
#include "kvo/os/mapped_file.h"
#include "local/shared_segment.h"
#include "local/topic_signal.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

// The local way of a topic: a ring of its events in shared memory, see topic_ring_layout.h.
namespace gorm::cor::ps {

/// Where the events file of a topic lies.
std::string EventsPath(const std::string& directory, std::string_view topic);
/// The name that a signal of the directory has while it is made.
key_t SignalKey(const std::string& directory);

/// The server's end. Threads: one.
class TopicRingServer {
public:
    /// Makes the ring and puts it in place. Throws std::system_error, or Error for a path or a
    /// sample that is too long, and leaves nothing behind then.
    /// @param counted the encoded sample that is not kept but counted.
    static std::unique_ptr<TopicRingServer> Make(const std::string& directory,
                                                 std::string_view topic, std::string_view counted,
                                                 const kvo::os::FileAccess& access);
    TopicRingServer(const TopicRingServer&) = delete;
    TopicRingServer& operator=(const TopicRingServer&) = delete;
    /// Closes the ring and removes it.
    ~TopicRingServer();

    /// @return false: the ring can not hold this sample, since the topic has too many or too long
    /// ones.
    bool Publish(std::string_view sample);
    /// For who goes on here after listening at a socket: what has been published so far.
    std::string Position() const;
    /// Whether clients have to tell the server of counted events too, for those at sockets.
    void SetRelayed(bool relayed);

    /// Closes and removes what an earlier server of the directory has left.
    static void RemoveAll(const std::string& directory);

private:
    TopicRingServer(std::string events_path, kvo::os::MappedFile events, SharedSegment signal);
    ring::EventsFile& events() const { return events_.as<ring::EventsFile>(); }
    std::optional<std::uint32_t> TextOf(std::string_view sample);

    const std::string events_path_;
    kvo::os::MappedFile events_;
    TopicSignal signal_;
    std::uint64_t head_ = 0;
};

/// A subscriber's end. Threads: one, but for Nudge().
class TopicRingReader {
public:
    /// None: there is no ring of the topic in the directory that can be used; why one that is there
    /// can not, is logged once.
    static std::optional<TopicRingReader> Open(const std::string& directory,
                                               std::string_view topic);

    /// From the present on, with one counted event if there has been any.
    void BeginNow();
    /// From what the server called its position; of another ring than this one: from its start.
    void BeginAt(std::string_view position);
    /// The next event as encoded sample, valid until the next call; none: there is none now. One
    /// that is behind by more than the ring holds goes on with what is left, after a counted one.
    std::optional<std::string_view> Take();

    /// Changes with everything that happens to the topic. To be asked for before the looks, by
    /// Take() or at anything that Nudge() tells of, that find nothing and lead to Sleep().
    std::uint32_t word() const { return signal_.word(); }
    /// Sleeps until something has happened since the word was `seen`.
    void Sleep(std::uint32_t seen, std::chrono::milliseconds at_most) {
        signal_.Sleep(seen, at_most);
    }
    /// Ends a Sleep(). Any thread.
    void Nudge() { signal_.Nudge(); }

    /// Nothing comes any more. What came before is given out by Take(): whoever asks here and then
    /// takes until there is none has all of it.
    bool closed() const;

private:
    TopicRingReader(kvo::os::MappedFile events, SharedSegment signal)
        : events_(std::move(events)), signal_(std::move(signal)) {}
    const ring::EventsFile& events() const { return events_.as<ring::EventsFile>(); }
    std::string_view Text(std::uint32_t number);

    kvo::os::MappedFile events_;
    TopicSignal signal_;
    std::uint64_t next_ = 0;     // entry
    std::uint32_t counted_ = 0;  // counted events given out, of the word
    bool overrun_ = false;       // a counted event is due
    std::string text_;           // what Take() gave out last
};

/// Who tells of counted events. Threads: any.
class TopicRingWriter final : public LocalTopic {
public:
    /// Null: as TopicRingReader::Open.
    static std::unique_ptr<TopicRingWriter> Open(const std::string& directory,
                                                 std::string_view topic);
    [[gnu::hot]] void Count() override { signal_.Count(); }
    bool relayed() const override;
    bool closed() const override;

private:
    TopicRingWriter(kvo::os::MappedFile events, SharedSegment signal)
        : events_(std::move(events)), signal_(std::move(signal)) {}
    const ring::EventsFile& events() const { return events_.as<ring::EventsFile>(); }

    kvo::os::MappedFile events_;
    TopicSignal signal_;
};

}  // namespace gorm::cor::ps
