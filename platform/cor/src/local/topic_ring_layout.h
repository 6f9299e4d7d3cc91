#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

// The memory of a local topic. The events file is written by the server alone: the topic's events
// in their order. The signal is written by every process that uses the topic: that something
// happened, and that a reader sleeps. Nothing in it is trusted with more than a wake-up. It is no
// file but System V memory, which no process can make shorter while others have it mapped.
//
// `sequence` counts. A notification, which is the frequent event, adds kNotification; everything
// else that a reader has to look at adds kWake and always wakes. Readers sleep on it (futex). Every
// 256th wake is carried over and so counts as a notification that was not sent, which costs a look.
// Without the carry 256 wakes would leave the sequence as it was, and a reader that had looked
// before them and was then stopped would go to sleep.
//
// `waiting_at` is the waiter flag: the newest value of the sequence at which a reader went to
// sleep. `woken_at` is a waiter flag for which a process has finished waking. A process that adds
// to the sequence wakes if the flag names the value before or an older one, or if the flag is not
// the one in `woken_at`; so the flag is never cleared (tests/model/wakeup.cpp searches all
// interleavings):
//  * A reader sets its flag and then loads the sequence again; a writer adds to the sequence and
//    then loads the flag; all four are sequentially consistent. So either the reader sees the new
//    sequence and does not sleep, or the writer sees the flag and wakes; between the reader's load
//    and its sleep the kernel compares the sequence once more.
//  * A flag never goes back while the value it names is the present one: flags are exchanged only
//    for newer ones, or for values that the sequence has not reached, which are untrusted.
//  * A process that is killed or stopped between adding and waking has not stored the flag in
//    `woken_at`, so the next one that adds wakes in its place. The flag is stored after the waking,
//    and only if the sequence had passed it before, so that no reader can fall asleep at it any
//    more. A store that comes late, or never, costs wake-ups that are not needed.
//  * A reader that is killed leaves a flag that costs one wake-up at most. For a writer that is
//    killed before its notification the server notifies: it learns of the death, adds an event and
//    wakes whatever the flag says. A stopped writer wakes when it goes on. And readers look once a
//    second.
namespace gorm::cor::ps::ring {

inline constexpr std::uint32_t kMagic = 0x31544B56;  // "VKT1" in a little-endian dump
inline constexpr std::uint32_t kVersion = 2;
inline constexpr std::uint32_t kEntries = 1024;
inline constexpr std::uint32_t kTexts = 8;
inline constexpr std::uint32_t kMostTextBytes = 508;
inline constexpr std::uint32_t kMostPathBytes = 472;
inline constexpr std::uint32_t kWake = 1;
inline constexpr std::uint32_t kNotification = 1U << 8;

/// One of the few encoded samples that a topic's events consist of. Text 0 is the notification.
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
    std::int32_t signal;                 // the id of its System V memory
    std::atomic<std::uint32_t> closed;   // 1: no event follows; look for another file
    std::atomic<std::uint32_t> relayed;  // not 0: there are subscribers at sockets
    std::atomic<std::uint64_t> head;     // entries so far
    Text texts[kTexts];
    // Entry n stands at n mod kEntries: low half of n, then the sequence's notifications at its
    // time (24 bits), then the number of its text (8 bits).
    std::atomic<std::uint64_t> entries[kEntries];
};
static_assert(offsetof(EventsFile, head) == 504);
static_assert(offsetof(EventsFile, texts) == 512);
static_assert(sizeof(EventsFile) == 512 + 8 * 512 + 8 * 1024);

struct Signal {
    std::atomic<std::uint32_t> sequence;
    alignas(64) std::atomic<std::uint32_t> waiting_at;
    std::atomic<std::uint32_t> woken_at;  // made with a value that no flag has for long
    // By the server, before the rename that lets others open the file; compared once by a process
    // that attaches the memory. A process that overwrites it keeps others from the topic's memory,
    // so that they use sockets.
    std::uint64_t nonce;
};
static_assert(offsetof(Signal, waiting_at) == 64);
static_assert(offsetof(Signal, woken_at) == 68);
static_assert(offsetof(Signal, nonce) == 72);

inline constexpr std::uint32_t kNeverWoken = 0x80000000;

constexpr std::uint32_t Notifications(std::uint32_t sequence) {
    return sequence >> 8;
}
constexpr std::uint32_t kNotificationsMask = Notifications(~0U);

constexpr std::uint64_t PackEntry(std::uint64_t number, std::uint32_t sequence,
                                  std::uint32_t text) {
    return number << 32 | (sequence & ~0xFFU) | (text & 0xFF);
}
constexpr std::uint32_t EntryNumber(std::uint64_t entry) {
    return static_cast<std::uint32_t>(entry >> 32);
}
constexpr std::uint32_t EntryNotifications(std::uint64_t entry) {
    return Notifications(static_cast<std::uint32_t>(entry));
}
constexpr std::uint32_t EntryText(std::uint64_t entry) {
    return static_cast<std::uint32_t>(entry & 0xFF);
}

}  // namespace gorm::cor::ps::ring
