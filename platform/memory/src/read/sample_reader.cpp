#include "read/sample_reader.h"

#include "layout/copy_out.h"

#include <algorithm>
#include <exception>

namespace kvo {
namespace {

// A miss means that the writer has moved on; the next attempt finds where to.
constexpr int kPinAttempts = 3;
// Bounded: a writer that overwrites each sample before it is pinned is faster than this reader, and
// the caller has to learn that instead of waiting here.
constexpr int kOvertakings = 8;

bool TooOld(const SlotContent& content, std::uint64_t now_ns, std::uint64_t max_age_ns) {
    return max_age_ns != 0 && now_ns > content.monotonic_ns &&
           now_ns - content.monotonic_ns > max_age_ns;
}

}  // namespace

std::string SampleReader::ClaimEntry(const std::string& directory) {
    if (entry_tried_) {
        return {};
    }
    entry_tried_ = true;
    try {
        entry_ = ReaderEntry::Claim(segment_, ProcessLock::ForDirectory(directory));
        return entry_ != nullptr
                   ? ""
                   : "all " + std::to_string(layout::kReaderEntries) + " reader entries are taken";
    } catch (const std::exception& error) {
        return error.what();
    }
}

std::uint64_t SampleReader::Newest() const {
    // [newest] Acquire: the index entry of this version is visible.
    const std::uint64_t head = segment_->words().head.load(std::memory_order_acquire);
    return head < layout::kMaxVersion ? head : 0;
}

std::uint64_t SampleReader::OldestRetained(std::uint64_t newest) const {
    const std::uint64_t retained = segment_->geometry().retained_samples;
    return newest > retained ? newest - retained + 1 : 1;
}

std::uint64_t SampleReader::Unread(std::uint64_t next, std::uint64_t newest) const {
    const std::uint64_t first = std::max(next, OldestRetained(newest));
    return newest >= first ? newest - first + 1 : 0;
}

std::uint64_t SampleReader::FirstYoung(std::uint64_t max_age_ns) const {
    const std::uint64_t newest = Newest();
    const std::uint64_t now_ns = MonotonicTick();
    SlotContent content;
    for (std::uint64_t version = OldestRetained(newest); version <= newest; ++version) {
        const auto slot = FindSlot(*segment_, version);
        // [slot-ready] Acquire: the header is this version's or a later one's; of a later one's
        // age it does no harm to judge.
        if (slot && segment_->slot(*slot).word.load(std::memory_order_acquire) ==
                        layout::PackWord(version, layout::SlotState::kValid)) {
            LoadContent(*segment_, *slot, content);
            if (!TooOld(content, now_ns, max_age_ns)) {
                return version;
            }
        }
    }
    return newest + 1;
}

// Asks the index, not `head`: the line of `head` changes with every sample, and a busy writer would
// have to fetch it back after each load.
[[gnu::hot]] void SampleReader::Probe(std::uint64_t version) {
    if (version <= known_newest_) {
        return;
    }
    const std::uint64_t entry = LoadIndex(*segment_, version);
    if (entry == layout::PackIndex(version, layout::IndexSlot(entry))) {
        known_newest_ = version;
    } else if (entry != 0 && entry != layout::PackIndex(version - segment_->index_mask() - 1,
                                                        layout::IndexSlot(entry))) {
        RefreshNewest();  // the entry is neither the one before nor the one looked for
    }
}

void SampleReader::ProbeUnread(std::uint64_t next) {
    Probe(next);
    if (next <= known_newest_) {
        RefreshNewest();
    }
}

[[gnu::hot]] bool SampleReader::TakeNext(std::uint64_t max_age_ns, std::uint64_t& next,
                                         ReaderCounters& counters, TakenSample& taken,
                                         std::vector<std::uint64_t>& damaged) {
    const std::uint64_t now_ns = max_age_ns != 0 ? MonotonicTick() : 0;
    Probe(next);
    int overtakings = 0;
    while (next <= known_newest_) {
        if (const std::uint64_t oldest = OldestRetained(known_newest_); next < oldest)
            [[unlikely]] {
            counters.lost += oldest - next;
            next = oldest;
        }
        taken.pin = {};
        if (!Read(next, taken)) [[unlikely]] {
            RefreshNewest();
            if (next >= OldestRetained(known_newest_)) {  // its place in the index was given on
                ++counters.lost;
                ++next;
            }
            if (++overtakings == kOvertakings) {
                return false;
            }
            continue;
        }
        taken.sequence_number = next++;
        if (TooOld(taken.content, now_ns, max_age_ns)) [[unlikely]] {
            ++counters.expired;
        } else if (!Intact(taken)) [[unlikely]] {
            ++counters.checksum_failures;
            damaged.push_back(taken.sequence_number);
        } else {
            ++counters.read;
            counters.copied += taken.bytes == taken.copy.data() ? 1 : 0;
            return true;
        }
    }
    taken.pin = {};
    return false;
}

bool SampleReader::Read(std::uint64_t version, TakenSample& taken) const {
    if (entry_ != nullptr && Pin(version, taken)) [[likely]] {
        return true;
    }
    const auto slot = FindSlot(*segment_, version);
    if (!slot || !CopyOut(*segment_, *slot, version, taken.content, taken.copy)) {
        return false;
    }
    taken.bytes = taken.copy.data();
    return true;
}

bool SampleReader::Pin(std::uint64_t version, TakenSample& taken) const {
    for (int attempt = 0; attempt < kPinAttempts; ++attempt) {
        if (attempt > 0 && version < OldestRetained(Newest())) {
            return false;
        }
        const auto slot = FindSlot(*segment_, version);
        if (!slot) {
            continue;
        }
        __builtin_prefetch(segment_->payload(*slot));
        int pin = ReaderEntry::kNoPin;
        switch (entry_->Pin(*slot, version, pin)) {
            case ReaderEntry::PinOutcome::kPinned:
                taken.pin = PinHold(entry_, pin);
                LoadContent(*segment_, *slot, taken.content);
                taken.bytes = segment_->payload(*slot);
                return true;
            case ReaderEntry::PinOutcome::kMissed:
                break;
            case ReaderEntry::PinOutcome::kNoRoom:
                return false;
        }
    }
    return false;
}

bool SampleReader::Intact(TakenSample& taken) const {
    const SlotContent& content = taken.content;
    const bool checked = content.has_checksum || segment_->asks_for_checksums();
    if (content.damaged || (checked && !content.has_checksum)) [[unlikely]] {
        return false;
    }
    taken.checksum_state = checked ? ChecksumState::kVerified : ChecksumState::kNone;
    return !checked || ChecksumOf(taken.bytes, content.payload_bytes, content.metadata_bytes) ==
                           content.checksum;
}

void SampleReader::PublishStatistics(const ReaderCounters& counters, std::uint64_t next) const {
    if (entry_ != nullptr) {
        entry_->PublishStatistics(counters, next);
    }
}

}  // namespace kvo
