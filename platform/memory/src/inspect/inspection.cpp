#include "kvo/memory/inspection.h"

#include "inspect/process_observer.h"
#include "kvo/os/hex.h"
#include "kvo/os/regular_file.h"
#include "layout/segment.h"
#include "layout/slot_content.h"
#include "lifetime/segment_state.h"
#include "lifetime/tags.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <thread>

namespace kvo {
namespace {

// Loads are relaxed: figures of one moment, or checked again before anything is reported.
constexpr unsigned kRoleNonceBits = 32;
constexpr unsigned kOwnerNonceBits = 48;

constexpr int kChecks = 50;
constexpr std::chrono::milliseconds kBetweenChecks{2};

ObservedProcess WriterOf(const Segment& segment, const ProcessObserver& processes) {
    const std::uint64_t role = segment.words().writer_role.load(std::memory_order_relaxed);
    return processes.Probe(RoleNumber(role), RoleNonce(role), kRoleNonceBits);
}

ObservedProcess ReaderOf(const Segment& segment, std::uint32_t entry,
                         const ProcessObserver& processes) {
    const ProcessTag owner =
        UnpackOwner(segment.reader_entry(entry).owner.load(std::memory_order_relaxed));
    return processes.Probe(owner.number, owner.nonce, kOwnerNonceBits);
}

ObservedReader Observe(const Segment& segment, const ReaderState& state,
                       const ProcessObserver& processes) {
    ObservedReader reader;
    reader.state = state;
    reader.process = ReaderOf(segment, state.entry, processes);
    const std::uint64_t newest = segment.words().head.load(std::memory_order_relaxed);
    const bool placed = state.next_sequence > 0 && state.next_sequence <= newest;
    reader.lag = placed ? newest - state.next_sequence + 1 : 0;
    reader.copied = segment.reader_statistics(state.entry).copied.load(std::memory_order_relaxed);
    for (const auto& cell : segment.reader_entry(state.entry).pins) {
        const std::uint32_t pin = cell.load(std::memory_order_relaxed);
        if (pin >= 1 && pin <= segment.geometry().slot_count) {
            const std::uint64_t word = segment.slot(pin - 1).word.load(std::memory_order_relaxed);
            const layout::SlotState slot_state = layout::WordState(word);
            const bool content =
                slot_state == layout::SlotState::kValid || slot_state == layout::SlotState::kClosed;
            reader.pinned.push_back(content ? layout::WordVersion(word) : 0);
        }
    }
    return reader;
}

/// The rules of a stream file, as they hold between any two steps of its users.
class Rules {
public:
    Rules(const Segment& segment, const ProcessObserver& processes)
        : segment_(segment), processes_(processes), geometry_(segment.geometry()) {}

    std::vector<std::string> Broken() {
        CheckWords();
        CheckSlots();
        CheckRetained();
        for (std::uint32_t entry = 0; entry < layout::kReaderEntries; ++entry) {
            CheckReaderEntry(entry);
        }
        return std::move(broken_);
    }

private:
    void Demand(bool holds, const std::string& otherwise) {
        if (!holds) {
            broken_.push_back(otherwise);
        }
    }
    static std::string Slot(std::uint32_t slot) { return "slot " + std::to_string(slot); }

    void CheckWords();
    void CheckSlots();
    void CheckContent(std::uint32_t slot, std::uint64_t word);
    void CheckRetained();
    void CheckReaderEntry(std::uint32_t number);

    const Segment& segment_;
    const ProcessObserver& processes_;
    const StreamGeometry& geometry_;
    std::vector<std::string> broken_;
};

void Rules::CheckWords() {
    const auto& words = segment_.words();
    const std::uint32_t state = words.state.load(std::memory_order_relaxed);
    Demand(state == layout::kActive || state == layout::kRetired,
           "the state is " + std::to_string(state));
    const std::uint32_t used = segment_.control().used_entries.load(std::memory_order_relaxed);
    Demand(used <= geometry_.pinning_entries,
           std::to_string(used) + " reader entries are marked as used" + ", only " +
               std::to_string(geometry_.pinning_entries) + " may pin");
    const std::uint64_t head = words.head.load(std::memory_order_relaxed);
    const std::uint64_t written =
        segment_.writer_counters().written.load(std::memory_order_relaxed);
    Demand(written <= head && head <= written + 1,
           std::to_string(written) + " samples are counted, the newest is number " +
               std::to_string(head));
}

void Rules::CheckSlots() {
    const std::uint64_t head = segment_.words().head.load(std::memory_order_relaxed);
    std::map<std::uint64_t, std::uint32_t> holders;
    std::uint32_t valid = 0;
    for (std::uint32_t slot = 0; slot < geometry_.slot_count; ++slot) {
        const std::uint64_t word = segment_.slot(slot).word.load(std::memory_order_acquire);
        const layout::SlotState state = layout::WordState(word);
        const std::uint64_t version = layout::WordVersion(word);
        if (state != layout::SlotState::kValid && state != layout::SlotState::kClosed) {
            continue;
        }
        valid += state == layout::SlotState::kValid;
        Demand(version >= 1 && version <= head + 1, Slot(slot) + " holds sample " +
                                                        std::to_string(version) +
                                                        ", the newest is " + std::to_string(head));
        const auto [holder, first] = holders.emplace(version, slot);
        Demand(first, Slot(slot) + " and " + Slot(holder->second) + " both hold sample " +
                          std::to_string(version));
        CheckContent(slot, word);
    }
    // The newest ones, what waits to be closed, and one between its word and the head.
    const std::uint32_t most = geometry_.retained_samples + geometry_.reclaim_batch + 1;
    Demand(valid <= most,
           std::to_string(valid) + " slots take pins, at most " + std::to_string(most) + " may");
}

void Rules::CheckContent(std::uint32_t slot, std::uint64_t word) {
    SlotContent content;
    LoadContent(segment_, slot, content);
    const bool intact = !content.has_checksum || content.damaged ||
                        ChecksumOf(segment_.payload(slot), content.payload_bytes,
                                   content.metadata_bytes) == content.checksum;
    if (segment_.slot(slot).word.load(std::memory_order_acquire) == word) {
        Demand(!content.damaged, Slot(slot) + " names sizes that do not fit");
        Demand(intact, Slot(slot) + " has another checksum than sample " +
                           std::to_string(layout::WordVersion(word)));
    }
}

void Rules::CheckRetained() {
    const std::uint64_t head = segment_.words().head.load(std::memory_order_acquire);
    const std::uint64_t retained = std::min<std::uint64_t>(head, geometry_.retained_samples);
    // Counted from 0: an untrusted head may be the last number there is.
    for (std::uint64_t back = 0; back < retained; ++back) {
        const std::uint64_t version = head - back;
        const auto slot = FindSlot(segment_, version);
        const bool there = slot && segment_.slot(*slot).word.load(std::memory_order_acquire) ==
                                       layout::PackWord(version, layout::SlotState::kValid);
        Demand(there, "sample " + std::to_string(version) + " of the newest " +
                          std::to_string(retained) + " cannot be read");
    }
}

void Rules::CheckReaderEntry(std::uint32_t number) {
    const auto& entry = segment_.reader_entry(number);
    const std::string name = "reader entry " + std::to_string(number);
    const bool owned = entry.owner.load(std::memory_order_acquire) != 0;
    const bool lives = owned && ReaderOf(segment_, number, processes_).lives;
    for (std::uint32_t k = 0; k < layout::kMaxPinsPerEntry; ++k) {
        const std::uint32_t pin = entry.pins[k].load(std::memory_order_relaxed);
        if (pin == 0) {
            continue;
        }
        Demand(owned, name + " has a pin and no owner");
        Demand(number < geometry_.pinning_entries && k < geometry_.pins_per_entry,
               name + " has a pin where none may be");
        Demand(!owned || number < segment_.control().used_entries.load(std::memory_order_relaxed),
               name + " has a pin above the used ones");
        if (pin > geometry_.slot_count) {
            Demand(false, name + " pins slot " + std::to_string(pin - 1) + " of " +
                              std::to_string(geometry_.slot_count));
        } else if (lives) {
            const std::uint64_t word = segment_.slot(pin - 1).word.load(std::memory_order_relaxed);
            Demand(layout::WordState(word) != layout::SlotState::kWriting,
                   Slot(pin - 1) + " is written while " + name + " pins it");
        }
    }
}

bool AnyProcessLives(const Segment& segment, const ProcessObserver& processes) {
    if (WriterOf(segment, processes).lives) {
        return true;
    }
    for (std::uint32_t entry = 0; entry < layout::kReaderEntries; ++entry) {
        if (ReaderOf(segment, entry, processes).lives) {
            return true;
        }
    }
    return false;
}

}  // namespace

FileReport InspectStreamFile(const std::string& path) {
    const auto segment = Segment::Observe(path);
    const ProcessObserver processes(os::DirectoryOf(path));
    FileReport report;
    report.stream = segment->stream();
    report.uuid = os::ToHex(segment->uuid().data(), segment->uuid().size());
    report.epoch = segment->epoch();
    report.created_ms = segment->created_ms();
    report.checksums = segment->asks_for_checksums();
    report.geometry = segment->geometry();
    report.writer = WriterStateOf(*segment);
    report.writer_process = WriterOf(*segment, processes);
    for (const ReaderState& state : ReaderStatesOf(*segment)) {
        report.readers.push_back(Observe(*segment, state, processes));
    }
    return report;
}

std::vector<std::string> CheckStreamFile(const std::string& path) {
    const auto segment = Segment::Observe(path);
    const ProcessObserver processes(os::DirectoryOf(path));
    std::vector<std::string> broken = Rules(*segment, processes).Broken();
    for (int check = 1; check < kChecks && !broken.empty(); ++check) {
        if (!AnyProcessLives(*segment, processes)) {
            break;
        }
        std::this_thread::sleep_for(kBetweenChecks);
        const std::vector<std::string> again = Rules(*segment, processes).Broken();
        // What is broken stays broken; what was a step on the way is not seen twice.
        std::erase_if(broken, [&](const std::string& text) {
            return std::find(again.begin(), again.end(), text) == again.end();
        });
    }
    return broken;
}

}  // namespace kvo
