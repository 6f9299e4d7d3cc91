#pragma once

#include "kvo/os/thread_bound.h"
#include "local/topic_ring_memory.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace gorm::cor::ps {

/// A subscriber's end of a local topic. Threads: one, but for Wake().
class TopicRingReader {
public:
    /// None: as TopicRingMemory::Open.
    [[nodiscard]] static std::optional<TopicRingReader> Open(const std::string& directory,
                                                             std::string_view topic);

    /// From the present on, with one notification if there has been any.
    void BeginNow();
    /// From what the server calls its position; of another ring than this one: from its start.
    void BeginAt(std::string_view position);
    /// The next event as encoded sample, valid until the next call; none: there is none now. A
    /// reader that is behind by more than the ring holds goes on with what is left, after a
    /// notification.
    [[nodiscard]] std::optional<std::string_view> Take();

    /// Changes with everything that happens to the topic. To be loaded before the checks, by Take()
    /// or of anything that Wake() announces, that find nothing and lead to Sleep().
    std::uint32_t sequence() const { return memory_.signal.sequence(); }
    /// Sleeps until something has happened since the sequence was `seen`.
    void Sleep(std::uint32_t seen, std::chrono::milliseconds at_most) {
        thread_.here();
        memory_.signal.Sleep(seen, at_most);
    }
    /// Ends a Sleep(). Any thread.
    void Wake() { memory_.signal.Wake(); }

    /// No event follows. A reader that sees this and then takes until there is none has them all.
    bool closed() const { return memory_.closed(); }

    /// Before another thread becomes the one.
    void ReleaseThread() { thread_.release(); }

private:
    explicit TopicRingReader(TopicRingMemory memory) : memory_(std::move(memory)) {}
    std::string_view Text(std::uint32_t number);
    std::uint64_t Entry() const;

    kvo::os::ThreadBound thread_;
    TopicRingMemory memory_;
    std::uint64_t next_ = 0;           // entry
    std::uint32_t notifications_ = 0;  // given out, of the sequence
    bool overrun_ = false;             // a notification is due
    std::string text_;                 // what Take() gave out last
};

}  // namespace gorm::cor::ps
