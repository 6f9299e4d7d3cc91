#include "write/sample_writer.h"

#include "kvo/os/crash_point.h"
#include "kvo/os/fork_guard.h"
#include "layout/copy_out.h"
#include "layout/slot_content.h"
#include "lifetime/tags.h"
#include "write/uncached_copy.h"

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cstring>
#include <stdexcept>
#include <string>

namespace kvo {
namespace {

// Slots of this size in turn have left the caches when the writer comes back to the first one.
constexpr std::uint64_t kUncachedBytes = 16U << 20;
// A copy of this many bytes takes long enough for its way through memory to matter.
constexpr std::uint32_t kBulkBytes = 512U << 10;

std::uint64_t BytesInTurn(const StreamGeometry& geometry) {
    return (std::uint64_t{geometry.retained_samples} + geometry.reclaim_batch) *
           geometry.slot_stride;
}

// Tells writers of one process apart.
std::uint16_t NextInstance() {
    static std::atomic<std::uint16_t> last{0};
    return last.fetch_add(1, std::memory_order_relaxed);  // relaxed: only the number counts.
}

}  // namespace

SampleWriter::SampleWriter(std::shared_ptr<Segment> segment, std::shared_ptr<ProcessLock> lock)
    : segment_(std::move(segment)),
      lock_(std::move(lock)),
      slots_leave_caches_(BytesInTurn(segment_->geometry()) >= kUncachedBytes) {
    const StreamGeometry& geometry = segment_->geometry();
    ring_.resize(geometry.retained_samples);
    stale_.reserve(geometry.slot_count);
    pending_.reserve(geometry.slot_count);
    free_.reserve(geometry.slot_count);
    seen_pinned_.resize(geometry.slot_count);
    TakeRole();
    KVO_CRASH_POINT("role taken");
    Recover();
    KVO_CRASH_POINT("role recovered");
}

SampleWriter::~SampleWriter() {
    if (!os::InForkedChild()) {
        // [role] Release: the next writer sees all stores of this one.
        std::uint64_t own = role_;
        segment_->words().writer_role.compare_exchange_strong(own, 0, std::memory_order_release,
                                                              std::memory_order_relaxed);
    }
}

void SampleWriter::TakeRole() {
    role_ = PackRole(lock_->Join(), NextInstance());
    auto& word = segment_->words().writer_role;
    std::uint64_t holder =
        word.load(std::memory_order_relaxed);  // relaxed: an exchange from this value follows.
    while (holder == 0 || !lock_->Resolve(RoleNumber(holder), RoleNonce(holder))) {
        // [role] Acquire: what the former writer stored is visible. A dead writer released
        // nothing; its stores are visible because the kernel has seen it end.
        if (word.compare_exchange_weak(holder, role_, std::memory_order_acq_rel,
                                       std::memory_order_relaxed)) {
            return;
        }
    }
    throw std::runtime_error("stream \"" + segment_->stream() + "\" has a writer, process number " +
                             std::to_string(RoleNumber(holder)));
}

void SampleWriter::Recover() {
    std::vector<Written> valid;
    for (std::uint32_t slot = 0; slot < segment_->geometry().slot_count; ++slot) {
        const std::uint64_t word =
            segment_->slot(slot).word.load(std::memory_order_relaxed);  // [role] orders it
        if (layout::WordState(word) == layout::SlotState::kValid) {
            valid.push_back({layout::WordVersion(word), slot});
        } else {
            pending_.push_back(slot);
        }
    }
    std::sort(valid.begin(), valid.end(),
              [](const Written& a, const Written& b) { return a.version < b.version; });
    const std::size_t retained = std::min(valid.size(), ring_.size());
    const auto first_retained = valid.end() - static_cast<std::ptrdiff_t>(retained);
    stale_.assign(valid.begin(), first_retained);
    for (auto sample = first_retained; sample != valid.end(); ++sample) {
        // The former writer may have died before it entered its last sample.
        segment_->index(sample->version)
            .store(layout::PackIndex(sample->version, sample->slot),
                   std::memory_order_release);  // [indexed]
        AddToRing(*sample);
        newest_ = sample->version;
    }
    // [newest] Release: a reader that loads the version finds it in the index.
    segment_->words().head.store(newest_, std::memory_order_release);
    scan_round_ = segment_->words().scan_round.load(std::memory_order_relaxed);  // [role] orders it
    std::fill(seen_pinned_.begin(), seen_pinned_.end(), scan_round_);

    auto& counters = segment_->writer_counters();
    counters.written.store(newest_, std::memory_order_relaxed);
    payload_bytes_ = counters.payload_bytes.load(std::memory_order_relaxed);
    dropped_ = counters.dropped.load(std::memory_order_relaxed);
    discarded_ = counters.discarded.load(std::memory_order_relaxed);
}

[[gnu::hot]] SampleWriter::Outcome SampleWriter::Write(const SampleView& sample, bool checksum) {
    assert(sample.payload_bytes <= segment_->geometry().max_payload_bytes &&
           sample.metadata_bytes <= segment_->geometry().max_metadata_bytes);
    // relaxed stores of counters: shown to people, nothing is decided on them.
    auto& counters = segment_->writer_counters();
    if (segment_->retired()) {
        counters.discarded.store(++discarded_, std::memory_order_relaxed);
        return Outcome::kDiscarded;
    }
    if (free_.empty() || stale_.size() >= segment_->geometry().reclaim_batch) {
        Reclaim();
    }
    if (free_.empty() || newest_ >= layout::kMaxVersion) {
        counters.dropped.store(++dropped_, std::memory_order_relaxed);
        return Outcome::kDropped;
    }
    const Written added{newest_ + 1, free_.back()};
    auto& word = segment_->slot(added.slot).word;
    KVO_CRASH_POINT("write begun");
    BeginOverwrite(word, added.version);
    KVO_CRASH_POINT("write marked");
    Fill(added.slot, sample, checksum || segment_->asks_for_checksums());
    KVO_CRASH_POINT("write filled");
    // [slot-ready] Release: a load with acquire of this word sees header and payload above. Killed
    // before this line, the slot still says "writing": no reader takes it and the next writer uses
    // it again. Killed after it, the sample counts and the next writer enters it in the index.
    word.store(layout::PackWord(added.version, layout::SlotState::kValid),
               std::memory_order_release);
    KVO_CRASH_POINT("write valid");
    // [indexed] Release: a load with acquire of the entry sees the valid word. Killed after this
    // line, readers may have the sample already; the next writer counts it as well.
    segment_->index(added.version)
        .store(layout::PackIndex(added.version, added.slot), std::memory_order_release);
    KVO_CRASH_POINT("write indexed");
    // [newest] Release: a reader that loads the version finds it in the index.
    segment_->words().head.store(added.version, std::memory_order_release);
    KVO_CRASH_POINT("write announced");

    free_.pop_back();
    newest_ = added.version;
    AddToRing(added);
    payload_bytes_ += sample.payload_bytes;
    counters.written.store(newest_,
                           std::memory_order_relaxed);  // versions count from 1 without gaps
    counters.payload_bytes.store(payload_bytes_, std::memory_order_relaxed);
    counters.last_write_ms.store(last_write_ms_ = sample.timestamp_ms, std::memory_order_relaxed);
    return Outcome::kWritten;
}

// relaxed: the slot's word, stored by the caller before and after, says what these belong to.
void SampleWriter::Fill(std::uint32_t slot, const SampleView& sample, bool checksum) const {
    unsigned char* bytes = segment_->payload(slot);
    CopyPayload(bytes, sample);
    if (sample.metadata_bytes > 0) {
        std::memcpy(bytes + sample.payload_bytes, sample.metadata, sample.metadata_bytes);
    }
    auto& header = segment_->slot(slot);
    header.payload_bytes.store(sample.payload_bytes, std::memory_order_relaxed);
    header.metadata_bytes.store(sample.metadata_bytes, std::memory_order_relaxed);
    header.sample_tag.store(sample.sample_tag, std::memory_order_relaxed);
    header.topic_id.store(sample.topic_id, std::memory_order_relaxed);
    header.timestamp_ms.store(sample.timestamp_ms, std::memory_order_relaxed);
    header.monotonic_ns.store(MonotonicTick(), std::memory_order_relaxed);
    header.checksum.store(
        checksum ? ChecksumOf(bytes, sample.payload_bytes, sample.metadata_bytes) : 0,
        std::memory_order_relaxed);
    header.flags.store(checksum ? layout::kSlotHasChecksum : 0, std::memory_order_relaxed);
    header.source_sequence.store(sample.source_sequence, std::memory_order_relaxed);
}

void SampleWriter::CopyPayload(unsigned char* to, const SampleView& sample) const {
    // After a pause the caches belong to others.
    const bool uncached = slots_leave_caches_ || sample.timestamp_ms != last_write_ms_;
    if (sample.payload_bytes >= kBulkBytes && uncached) {
        CopyUncached(to, sample.payload, sample.payload_bytes);
    } else if (sample.payload_bytes > 0) {
        std::memcpy(to, sample.payload, sample.payload_bytes);
    }
}

[[gnu::hot]] void SampleWriter::AddToRing(const Written& sample) {
    Written& place = ring_[ring_next_];
    if (ring_used_ < ring_.size()) {
        ++ring_used_;
    } else {
        stale_.push_back(place);
    }
    place = sample;
    ring_next_ = ring_next_ + 1 == ring_.size() ? 0 : ring_next_ + 1;
}

[[gnu::hot]] void SampleWriter::Reclaim() {
    for (const Written& sample : stale_) {
        // [slot-closed] Release: a reader that sees this also sees the N newer samples. Closed is
        // for good: content intact, no new pin, never valid again, so a crash undoes nothing.
        segment_->slot(sample.slot)
            .word.store(layout::PackWord(sample.version, layout::SlotState::kClosed),
                        std::memory_order_release);
        KVO_CRASH_POINT("reclaim closing");
    }
    ScanPins();
    KVO_CRASH_POINT("reclaim scanned");
    const std::size_t pending_before = pending_.size();
    std::size_t kept = 0;
    for (std::size_t i = 0; i < pending_before; ++i) {
        if (seen_pinned_[pending_[i]] == scan_round_) {
            pending_[kept++] = pending_[i];
        } else {
            free_.push_back(pending_[i]);
        }
    }
    pending_.resize(kept);
    for (const Written& sample : stale_) {  // oldest first: the warmest comes to the top
        auto& list = seen_pinned_[sample.slot] == scan_round_ ? pending_ : free_;
        list.push_back(sample.slot);
    }
    stale_.clear();
    assert(ring_used_ + pending_.size() + free_.size() == segment_->geometry().slot_count);
}

[[gnu::hot]] void SampleWriter::ScanPins() {
    ++scan_round_;
    const StreamGeometry& geometry = segment_->geometry();
    // [pin-or-closed] One sequentially consistent store a batch, between closing and scanning: a
    // reader whose pin the scan below does not see, sees this round, and with it the closed word.
    segment_->words().scan_round.store(scan_round_, std::memory_order_seq_cst);
    KVO_CRASH_POINT("reclaim round");
    // [used-entries] Loaded after the round. Clamped: readers may write anything there.
    const std::uint32_t entries = std::min(
        segment_->control().used_entries.load(std::memory_order_seq_cst), geometry.pinning_entries);
    for (std::uint32_t number = 0; number < entries; ++number) {
        const auto& entry = segment_->reader_entry(number);
        for (std::uint32_t k = 0; k < geometry.pins_per_entry; ++k) {
            // [pin-or-closed], and [unpin]: a 0 comes after the holder's last access.
            const std::uint32_t pin = entry.pins[k].load(std::memory_order_seq_cst);
            if (pin >= 1 && pin <= geometry.slot_count) {
                seen_pinned_[pin - 1] = scan_round_;
            }
        }
    }
}

WriterCounters SampleWriter::counters() const {
    return {newest_, dropped_, discarded_};
}

}  // namespace kvo
