#pragma once

#include "kvo/memory/stream_geometry.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

// The bytes of a stream's two files. The data file D holds header, words, counters, index, slot
// headers and payloads; readers map it read-only. The control file T holds what readers write:
// the reader entries with their pins and the reader statistics. T lies beside D and is named after
// D's uuid. Nothing in either file is trusted: geometry is checked once and copied, everything else
// is clamped or compared before use. docs/stream-file.md explains the protocol.
namespace kvo::layout {

inline constexpr std::uint32_t kDataMagic = 0x31445356;     // "VSD1" in a little-endian dump
inline constexpr std::uint32_t kControlMagic = 0x31435356;  // "VSC1"
inline constexpr std::uint16_t kLayoutVersion = 2;
inline constexpr std::uint32_t kByteOrderTag = 0x01020304;
inline constexpr std::uint64_t kPageBytes = 4096;
inline constexpr std::uint32_t kMaxPinsPerEntry = 6;
using kvo::kReaderEntries;

// The index gives 20 bits to the slot number. `head` therefore holds a version alone: the slot
// comes from the index entry and is believed only when the slot's own word names that version.
// A head that held both would leave either few slots or few versions.
inline constexpr std::uint32_t kSlotBits = 20;
inline constexpr std::uint32_t kMaxSlots = (1U << kSlotBits) - 1;

// Low half: a process that does not know a bit must not use the file. High half: may be ignored.
inline constexpr std::uint32_t kFeatureChecksum = 1U << 0;
inline constexpr std::uint32_t kBindingFeatures = 0x0000FFFF;
inline constexpr std::uint32_t kKnownFeatures = kFeatureChecksum;

// Everything in page 0 behind the magic; constant once the magic is there. Creator writes.
struct HeaderFields {
    std::uint16_t layout_version;  // other number: refuse the file
    std::uint16_t header_bytes;    // at least sizeof(DataHeader); may grow
    std::uint32_t byte_order;      // kByteOrderTag
    std::uint32_t features;
    std::uint32_t reader_entries;  // kReaderEntries
    unsigned char uuid[16];        // of this segment; also the name of T
    std::uint64_t epoch;           // rises with every segment of the stream
    std::uint32_t max_payload_bytes;
    std::uint32_t max_metadata_bytes;
    std::uint32_t retained_samples;  // N
    std::uint32_t pinning_entries;   // Z
    std::uint32_t pins_per_entry;    // P
    std::uint32_t reclaim_batch;     // B
    std::uint32_t slot_count;        // N + Z * P + B
    std::uint32_t index_entries;     // M, the first power of two above N
    std::uint64_t slot_stride;       // bytes from one payload to the next, a multiple of 64
    std::uint64_t index_offset;      // these three from the start of the file
    std::uint64_t slot_headers_offset;
    std::uint64_t payload_offset;
    std::uint64_t file_bytes;
    std::uint64_t created_ms;      // since the Unix epoch
    unsigned char key_digest[16];  // of the publisher's key
    std::uint32_t stream_bytes;    // length of `stream`
    std::uint32_t unused;          // 0
    char stream[256];              // the stream's identifier
    unsigned char room[96];        // 0
    std::uint64_t header_digest;   // XXH3 64 of all fields above
};

// Page 0.
struct DataHeader {
    std::atomic<std::uint32_t> magic;  // stored last
    std::uint32_t unused;              // 0
    HeaderFields fields;
};
static_assert(sizeof(DataHeader) == 512);
static_assert(offsetof(DataHeader, fields) == 8);
static_assert(offsetof(HeaderFields, uuid) == 16);
static_assert(offsetof(HeaderFields, slot_stride) == 72);
static_assert(offsetof(HeaderFields, key_digest) == 120);
static_assert(offsetof(HeaderFields, stream) == 144);
static_assert(offsetof(HeaderFields, header_digest) == 496);

inline constexpr std::uint32_t kActive = 0;
inline constexpr std::uint32_t kRetired = 1;

// Page 1: a cache line for each word. The round has one of its own because every pin loads it
// and `head` changes with every sample.
struct SharedWords {
    alignas(64) std::atomic<std::uint32_t> state;  // broker only: kActive or kRetired
    // Writers, by compare and exchange: lock number << 48 | instance << 32 | low half of the
    // process's nonce; 0: none. A dead process's value may be exchanged by any process.
    alignas(64) std::atomic<std::uint64_t> writer_role;
    alignas(64) std::atomic<std::uint64_t> head;        // role's holder: newest version, 0: none
    alignas(64) std::atomic<std::uint64_t> scan_round;  // role's holder: scans of the pins begun
};
static_assert(sizeof(SharedWords) == 256);
static_assert(offsetof(SharedWords, writer_role) == 64);
static_assert(offsetof(SharedWords, head) == 128);
static_assert(offsetof(SharedWords, scan_round) == 192);

// Page 2: the role's holder only. For people and statistics; nothing is decided on them.
struct SharedWriterCounters {
    std::atomic<std::uint64_t> written;
    std::atomic<std::uint64_t> payload_bytes;
    std::atomic<std::uint64_t> dropped;
    std::atomic<std::uint64_t> discarded;
    std::atomic<std::uint64_t> last_write_ms;  // the newest sample's time stamp
};
static_assert(sizeof(SharedWriterCounters) == 40);

inline constexpr std::uint64_t kWordsOffset = kPageBytes;
inline constexpr std::uint64_t kCountersOffset = 2 * kPageBytes;
inline constexpr std::uint64_t kIndexOffset = 3 * kPageBytes;

// Index entry of version v, at v mod M: low 44 bits of v, then the slot. Role's holder writes.
using IndexEntry = std::atomic<std::uint64_t>;
constexpr std::uint64_t PackIndex(std::uint64_t version, std::uint32_t slot) {
    return version << kSlotBits | slot;
}
constexpr std::uint32_t IndexSlot(std::uint64_t entry) {
    return static_cast<std::uint32_t>(entry) & kMaxSlots;
}

// A slot's word is its version and its state. kClosed: content intact, takes no new pins, is
// never made valid again. Versions are 62 bits and never used for two samples.
enum class SlotState : std::uint64_t { kEmpty = 0, kWriting = 1, kValid = 2, kClosed = 3 };
inline constexpr std::uint64_t kMaxVersion = (1ULL << 62) - 1;
constexpr std::uint64_t PackWord(std::uint64_t version, SlotState state) {
    return version << 2 | static_cast<std::uint64_t>(state);
}
constexpr std::uint64_t WordVersion(std::uint64_t word) {
    return word >> 2;
}
constexpr SlotState WordState(std::uint64_t word) {
    return static_cast<SlotState>(word & 3);
}

inline constexpr std::uint32_t kSlotHasChecksum = 1;

// One per slot; role's holder writes. Atomics, because a copying reader may load it while the slot
// is written anew; it checks the word afterwards.
struct SlotHeader {
    std::atomic<std::uint64_t> word;
    std::atomic<std::uint32_t> payload_bytes;
    std::atomic<std::uint32_t> metadata_bytes;  // the metadata follows the payload at once
    std::atomic<std::int32_t> sample_tag;
    std::atomic<std::int32_t> topic_id;
    std::atomic<std::uint64_t> timestamp_ms;  // the caller's, since the Unix epoch
    std::atomic<std::uint64_t> monotonic_ns;  // CLOCK_MONOTONIC of the host, for ages
    std::atomic<std::uint64_t> checksum;      // XXH3 64, seed: payload_bytes
    std::atomic<std::uint32_t> flags;         // kSlotHasChecksum
    std::uint32_t unused;                     // 0
    // In a stream imported from another host: the number that the sample has there. 0: the version.
    std::atomic<std::uint64_t> source_sequence;
};
static_assert(sizeof(SlotHeader) == 64);
static_assert(offsetof(SlotHeader, monotonic_ns) == 32);
static_assert(offsetof(SlotHeader, source_sequence) == 56);
static_assert(offsetof(SlotHeader, flags) == 48);

// Page 0 of T. Creator writes all but `used_entries`.
struct ControlHeader {
    std::atomic<std::uint32_t> magic;  // stored last
    std::uint16_t layout_version;
    std::uint16_t header_bytes;
    std::uint32_t reader_entries;
    std::uint32_t unused;
    unsigned char uuid[16];  // that of D
    // Readers, by compare-and-exchange maximum: high-water mark of the entries used by
    // readers that may pin.
    alignas(64) std::atomic<std::uint32_t> used_entries;
};
static_assert(sizeof(ControlHeader) == 128);
static_assert(offsetof(ControlHeader, uuid) == 16);
static_assert(offsetof(ControlHeader, used_entries) == 64);

// One per reader. The owner alone stores pins; owner changes by compare and exchange from 0 or
// from a dead owner, and back to 0 by its owner after the pins are 0.
struct alignas(64) ReaderEntry {
    std::atomic<std::uint64_t> owner;                   // nonce << 16 | lock number; 0: free
    std::atomic<std::uint32_t> pins[kMaxPinsPerEntry];  // slot + 1; 0: none
};
static_assert(sizeof(ReaderEntry) == 64);
static_assert(offsetof(ReaderEntry, pins) == 8);

// Beside each reader entry, written by its owner: what the reader got and did not get since it
// was made, over all epochs. For people; nothing is decided on it.
struct ReaderStatistics {
    std::atomic<std::uint64_t> next_sequence;  // in this segment
    std::atomic<std::uint64_t> read;
    std::atomic<std::uint64_t> lost;
    std::atomic<std::uint64_t> superseded;
    std::atomic<std::uint64_t> expired;
    std::atomic<std::uint64_t> checksum_failures;
    std::atomic<std::uint64_t> copied;
    std::uint64_t room[9];  // 0
};
static_assert(sizeof(ReaderStatistics) == 128);

inline constexpr std::uint64_t kReaderEntriesOffset = kPageBytes;
inline constexpr std::uint64_t kReaderStatisticsOffset =
    kReaderEntriesOffset + kReaderEntries * sizeof(ReaderEntry);
inline constexpr std::uint64_t kControlBytes =
    kReaderStatisticsOffset + kReaderEntries * sizeof(ReaderStatistics);
static_assert(kControlBytes % kPageBytes == 0);

static_assert(std::atomic<std::uint64_t>::is_always_lock_free);
static_assert(std::atomic<std::uint32_t>::is_always_lock_free);

}  // namespace kvo::layout
