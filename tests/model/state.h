#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <type_traits>

// One state of the modelled system: shared cells, store buffers, what each process knows.
namespace kvo::model {

/// What becomes visible when: at once; in the order of the stores; in any order that keeps the
/// stores to one cell, releases and fences in place.
enum class MemoryModel { kSc, kTso, kPso };

inline constexpr unsigned kMaxSlots = 7;
inline constexpr unsigned kMaxEntries = 2;
inline constexpr unsigned kThreads = 6;
inline constexpr unsigned kCells = 3 * kMaxSlots + 2 * kMaxEntries + 3;
inline constexpr unsigned kBufferEntries = 8;

struct BufferedStore {
    std::uint8_t cell;  // kFence: no store
    std::uint8_t value;
    std::uint8_t release;
};
inline constexpr std::uint8_t kFence = 0xFF;

struct Thread {
    std::uint8_t step;     // of its program; meaning in protocol.cpp
    std::uint8_t process;  // its identity now; 0: not started
    std::uint8_t crashes;  // it may still have
    std::uint8_t rounds;   // samples to read, passes to make
    std::uint8_t entry;    // reader, reaper: where it is; kMaxEntries: none
    std::uint8_t slot;     // in hand
    std::uint8_t word;     // as first loaded
    std::uint8_t seen;     // last value loaded that is needed later
    std::uint8_t copied;   // payload half that was copied
    std::uint8_t busy;     // writer: slots that the scan has named, one bit each
    std::uint8_t version;  // writer: of the next sample
    std::uint8_t limit;    // writer: entries to scan
    std::uint8_t round;    // writer: scans begun
    std::array<std::uint8_t, kMaxSlots> words;   // writer: of the slots, as it knows them
    std::array<std::uint8_t, kMaxSlots> places;  // writer: Place of the slots
    std::uint8_t buffered;
    std::array<BufferedStore, kBufferEntries> buffer;  // oldest first, zero behind the last
};

struct State {
    std::array<std::uint8_t, kCells> cells;
    std::array<Thread, kThreads> threads;
    std::uint32_t dead;   // processes that have died, one bit each
    std::uint32_t fault;  // what a step noticed: an index of kFaults in protocol.cpp; 0: nothing
};
static_assert(std::has_unique_object_representations_v<Thread>);

}  // namespace kvo::model
