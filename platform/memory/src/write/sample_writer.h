#pragma once

#include "kvo/memory/counters.h"
#include "kvo/memory/process_lock.h"
#include "kvo/memory/sample_view.h"
#include "layout/segment.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace kvo {

/// The one writer of a segment, as long as it lives.
///
/// Every slot is in exactly one of four private lists: the ring (the newest N, VALID), stale
/// (behind the ring, still VALID), pending (CLOSED, but a reader holds it) and free. A slot
/// gets from stale or pending to the free list only by a scan of all pins that began after it was
/// closed. The lists are not in the file: a successor rebuilds them from the slots' words and
/// starts with an empty free list.
/// Threads: one at a time.
class SampleWriter {
public:
    enum class Outcome {
        kWritten,
        kDropped,    // readers hold more slots than there are pins for
        kDiscarded,  // the segment is retired
    };

    /// Takes the writer's role; throws std::runtime_error when a living writer has it,
    /// std::system_error when this process cannot join.
    /// @param segment opened for writing.
    SampleWriter(std::shared_ptr<Segment> segment, std::shared_ptr<ProcessLock> lock);
    SampleWriter(const SampleWriter&) = delete;
    SampleWriter& operator=(const SampleWriter&) = delete;
    ~SampleWriter();

    /// Never blocks, allocates nothing.
    /// @param sample sizes have been checked against the segment's geometry.
    /// @param checksum computed also where the stream does not ask for one.
    [[nodiscard]] Outcome Write(const SampleView& sample, bool checksum = false);

    const Segment& segment() const { return *segment_; }
    WriterCounters counters() const;

private:
    struct Written {
        std::uint64_t version = 0;
        std::uint32_t slot = 0;
    };
    void TakeRole();
    void Recover();
    void Reclaim();
    void ScanPins();
    void Fill(std::uint32_t slot, const SampleView& sample, bool checksum) const;
    void CopyPayload(unsigned char* to, const SampleView& sample) const;
    void AddToRing(const Written& sample);

    const std::shared_ptr<Segment> segment_;
    const std::shared_ptr<ProcessLock> lock_;  // joined for as long as the role is held
    const bool slots_leave_caches_;            // between two writes of the same one
    std::uint64_t role_ = 0;

    std::uint64_t newest_ = 0;      // version
    std::uint64_t scan_round_ = 0;  // scans begun, by all writers of the segment
    std::vector<Written> ring_;     // N places; oldest at ring_next_ once it is full
    std::size_t ring_used_ = 0;
    std::size_t ring_next_ = 0;
    std::vector<Written> stale_;
    std::vector<std::uint32_t> pending_;
    std::vector<std::uint32_t> free_;         // last in, first out: the warmest slot
    std::vector<std::uint64_t> seen_pinned_;  // per slot: the last round that saw a pin on it

    // As they stand in the file, where they are only written.
    std::uint64_t payload_bytes_ = 0;
    std::uint64_t last_write_ms_ = 0;
    std::uint64_t dropped_ = 0;
    std::uint64_t discarded_ = 0;
};

}  // namespace kvo
