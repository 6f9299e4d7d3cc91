#include "local/topic_ring_reader.h"

#include "kvo/os/crash_point.h"
#include "kvo/os/hex.h"

#include <algorithm>
#include <charconv>
#include <system_error>

namespace gorm::cor::ps {

std::optional<TopicRingReader> TopicRingReader::Open(const std::string& directory,
                                                     std::string_view topic) {
    auto memory = TopicRingMemory::Open(directory, topic);
    return memory ? std::optional(TopicRingReader(std::move(*memory))) : std::nullopt;
}

void TopicRingReader::BeginNow() {
    thread_.here();
    // The sequence before the head, as in Take().
    notifications_ = ring::Notifications(sequence());
    // [ring-head] Acquire: the entries before it are visible.
    next_ = memory_.events().head.load(std::memory_order_acquire);
    overrun_ = notifications_ != 0;
}

void TopicRingReader::BeginAt(std::string_view position) {
    BeginNow();
    std::uint64_t begin = 0;
    if (position.size() == 32 && position.substr(0, 16) == kvo::os::ToHex(memory_.events().nonce)) {
        const auto [end, error] =
            std::from_chars(position.data() + 16, position.data() + 32, begin, 16);
        begin = error == std::errc() ? begin : 0;
    }
    next_ = std::min(begin, next_);
}

[[gnu::hot]] std::string_view TopicRingReader::Text(std::uint32_t number) {
    const ring::Text& text = memory_.events().texts[number % ring::kTexts];
    // relaxed: the entry that names the text was loaded with acquire [ring-entry].
    const std::uint32_t bytes = text.bytes.load(std::memory_order_relaxed);
    // A copy, so that the file may change. Nearly always it is the text given out last.
    if (const std::string_view there(text.text, std::min(bytes, ring::kMostTextBytes));
        there != text_) {
        text_ = there;
    }
    return text_;
}

std::uint64_t TopicRingReader::Entry() const {
    // [ring-entry] Acquire: the text that the entry names is visible.
    return memory_.events().entries[next_ % ring::kEntries].load(std::memory_order_acquire);
}

[[gnu::hot]] std::optional<std::string_view> TopicRingReader::Take() {
    thread_.here();
    // The sequence before the head: a notification that was sent after an entry was made is then
    // given out after that entry, since a reader that sees the sequence sees the entry as well.
    const std::uint32_t sent = ring::Notifications(sequence());
    // [ring-head] Acquire: the entries before it are visible.
    const std::uint64_t head = memory_.events().head.load(std::memory_order_acquire);
    if (overrun_) {
        overrun_ = false;
        return Text(0);
    }
    if (next_ > head || head - next_ > ring::kEntries) {
        next_ = head < ring::kEntries ? 0 : head - ring::kEntries;
        notifications_ = ring::EntryNotifications(Entry());
        return Text(0);
    }
    if (next_ < head) {
        const std::uint64_t entry = Entry();
        if (ring::EntryNumber(entry) != static_cast<std::uint32_t>(next_)) {
            next_ += 1;  // overwritten meanwhile; the next call finds out how much is gone
            return Text(0);
        }
        // The entry may also be older than notifications that have been given out already.
        if (const std::uint32_t before = ring::EntryNotifications(entry);
            before != notifications_ && ((before - notifications_) & ring::kNotificationsMask) <=
                                            ring::kNotificationsMask / 2) {
            notifications_ = before;
            return Text(0);
        }
        ++next_;
        return Text(ring::EntryText(entry));
    }
    if (sent != notifications_) {
        notifications_ = sent;
        return Text(0);
    }
    KVO_CRASH_POINT("ring found empty");
    return std::nullopt;
}

}  // namespace gorm::cor::ps
