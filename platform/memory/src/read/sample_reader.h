#pragma once

#include "kvo/memory/counters.h"
#include "kvo/memory/data_sample.h"
#include "layout/segment.h"
#include "layout/slot_content.h"
#include "lifetime/reader_entry.h"

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kvo {

/// A sample as it was taken: pinned where it lies, or copied.
struct TakenSample {
    std::uint64_t sequence_number = 0;
    SlotContent content;
    ChecksumState checksum_state = ChecksumState::kNone;
    const unsigned char* bytes = nullptr;  // payload, then metadata
    PinHold pin;
    std::vector<unsigned char> copy;  // memory at most when pinned
};

/// One reader's view of one segment. It believes nothing that it has not checked itself.
/// Threads: one at a time.
class SampleReader {
public:
    explicit SampleReader(std::shared_ptr<Segment> segment) : segment_(std::move(segment)) {}

    const Segment& segment() const { return *segment_; }

    /// Claims an entry of the segment's reader table, if that has not been tried before; without
    /// one every sample is copied. @return what went wrong; empty: nothing.
    [[nodiscard]] std::string ClaimEntry(const std::string& directory);

    std::uint64_t Newest() const;
    std::uint64_t OldestRetained(std::uint64_t newest) const;
    /// The first sample for a reader without a place: the oldest that is young enough.
    std::uint64_t FirstYoung(std::uint64_t max_age_ns) const;

    /// How many samples are to be had from `next` on, of those up to `newest`.
    std::uint64_t Unread(std::uint64_t next, std::uint64_t newest) const;

    /// Takes the first sample from `next` on that can be had, and counts those that cannot.
    /// @param max_age_ns 0: any age.
    /// @param taken      its copy's memory is used again.
    /// @param damaged    gets the sequence numbers of those skipped for their checksum.
    /// @return false: there is none up to known_newest().
    [[nodiscard]] bool TakeNext(std::uint64_t max_age_ns, std::uint64_t& next,
                                ReaderCounters& counters, TakenSample& taken,
                                std::vector<std::uint64_t>& damaged);

    /// What TakeNext() believes to be the newest sample. It refreshes this when it needs to; a
    /// caller that wants the exact number refreshes it before.
    std::uint64_t known_newest() const { return known_newest_; }
    void RefreshNewest() { known_newest_ = Newest(); }
    /// The same if there is a sample from `next` on; to find none costs a busy writer less.
    void ProbeUnread(std::uint64_t next);

    void PublishStatistics(const ReaderCounters& counters, std::uint64_t next) const;

private:
    [[nodiscard]] bool Read(std::uint64_t version, TakenSample& taken) const;
    [[nodiscard]] bool Pin(std::uint64_t version, TakenSample& taken) const;
    [[nodiscard]] bool Intact(TakenSample& taken) const;
    void Probe(std::uint64_t version);

    const std::shared_ptr<Segment> segment_;
    boost::intrusive_ptr<ReaderEntry> entry_;  // null: none
    bool entry_tried_ = false;
    std::uint64_t known_newest_ = 0;
};

}  // namespace kvo
