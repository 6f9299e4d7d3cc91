#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

// The memory of a local topic. The events file is written by the server alone: which events there
// were, in order. The signal is written by everybody: that something happened, and whether somebody
// sleeps. Nothing in it is trusted with more than a wake-up, and it is no file but a segment, which
// nobody can make shorter under those who have it mapped.
//
// `word` counts: what is sent very often, the counted event, adds kCounted; everything else that
// a reader has to look at adds kNudged and always wakes. It is the futex that readers sleep on.
// Every 256th nudge is carried over and so counts as an event that there was not, which costs a
// look. Without that the word would be the same again after 256 of them, and a reader that had
// looked before them and then stood still would go to sleep.
//
// `asleep_at` is the word's value at which somebody went to sleep, the newest such value.
// `woken_at` is a mark that somebody has got through with waking for. Who adds to the word wakes if
// the value before was the mark or an older one, or if the mark is not noted as woken for; so
// nobody has to take the mark back (tests/model/wakeup.cpp searches all interleavings):
//  * A reader stores its mark and then looks at the word again; a writer adds to the word and then
//    looks at the mark; all four sequentially consistent. So either the reader sees the new word
//    and does not sleep, or the writer sees the mark and wakes; between the reader's look and its
//    sleep the kernel compares the word once more.
//  * A mark never goes back while the word it names is the present one: marks are exchanged
//    only for newer ones, or for values that the word has not reached, which nobody honest wrote.
//  * Somebody who is killed or stopped between adding and waking has not noted the mark as woken
//    for, so the next one to add wakes in his place. A mark is noted after the waking, and only if
//    the word had passed it before, so that nobody can fall asleep at it any more. A note that
//    comes late, or never, costs wake-ups that are not needed.
//  * A reader that is killed leaves a mark that costs one wake-up at most. What a killed writer has
//    not told of, the server tells of: it learns of the death, adds an event and wakes whatever the
//    mark says. A stopped writer wakes when it goes on. And readers look once a second.
namespace gorm::cor::ps::ring {

inline constexpr std::uint32_t kMagic = 0x31544B56;  // "VKT1" in a little-endian dump
inline constexpr std::uint32_t kVersion = 2;
inline constexpr std::uint32_t kEntries = 1024;
inline constexpr std::uint32_t kTexts = 8;
inline constexpr std::uint32_t kMostTextBytes = 508;
inline constexpr std::uint32_t kMostPathBytes = 472;
inline constexpr std::uint32_t kNudged = 1;
inline constexpr std::uint32_t kCounted = 1U << 8;

/// One of the few encoded samples that a topic's events consist of. Text 0 is the counted one.
struct Text {
    std::atomic<std::uint32_t> bytes;  // stored after the text, before an entry names it; 0: none
    char text[kMostTextBytes];
};
static_assert(sizeof(Text) == 512);

/// Server only. Made under another name and renamed when it is complete.
struct EventsFile {
    std::uint32_t magic;
    std::uint32_t version;
    std::uint64_t nonce;  // the signal has the same
    std::uint32_t path_bytes;
    char path[kMostPathBytes];           // the topic's, with its first slash
    std::int32_t signal;                 // the id of its segment
    std::atomic<std::uint32_t> closed;   // 1: nothing more comes; look for another one
    std::atomic<std::uint32_t> relayed;  // not 0: somebody listens over a socket
    std::atomic<std::uint64_t> head;     // entries so far
    Text texts[kTexts];
    // Entry n stands at n mod kEntries: low half of n, then the word's counted events at its time
    // (24 bits), then the number of its text (8 bits).
    std::atomic<std::uint64_t> entries[kEntries];
};
static_assert(offsetof(EventsFile, head) == 504);
static_assert(offsetof(EventsFile, texts) == 512);
static_assert(sizeof(EventsFile) == 512 + 8 * 512 + 8 * 1024);

struct Signal {
    std::atomic<std::uint32_t> word;
    alignas(64) std::atomic<std::uint32_t> asleep_at;
    std::atomic<std::uint32_t> woken_at;  // made with a value that is no mark for long
    // By the server, before the rename that lets others look; compared once by who attaches it.
    // Whoever overwrites it keeps newcomers away from his topic's memory, so that they use sockets.
    std::uint64_t nonce;
};
static_assert(offsetof(Signal, asleep_at) == 64);
static_assert(offsetof(Signal, woken_at) == 68);
static_assert(offsetof(Signal, nonce) == 72);

inline constexpr std::uint32_t kNeverWoken = 0x80000000;

constexpr std::uint64_t PackEntry(std::uint64_t number, std::uint32_t word, std::uint32_t text) {
    return number << 32 | (word & ~0xFFU) | (text & 0xFF);
}
constexpr std::uint32_t EntryNumber(std::uint64_t entry) {
    return static_cast<std::uint32_t>(entry >> 32);
}
constexpr std::uint32_t EntryCount(std::uint64_t entry) {
    return static_cast<std::uint32_t>(entry) >> 8;
}
constexpr std::uint32_t EntryText(std::uint64_t entry) {
    return static_cast<std::uint32_t>(entry & 0xFF);
}

}  // namespace gorm::cor::ps::ring
