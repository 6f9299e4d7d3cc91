#include "protocol.h"

#include <algorithm>
#include <bit>

// The programs of the processes, one shared access a step, as platform/memory/src runs them.
namespace kvo::model {
namespace {

enum SlotState : std::uint8_t { kEmpty, kWriting, kValid, kClosed };
constexpr std::uint8_t Pack(unsigned version, SlotState state) {
    return static_cast<std::uint8_t>(version << 2 | state);
}
constexpr unsigned VersionOf(std::uint8_t word) {
    return word >> 2;
}
constexpr SlotState StateOf(std::uint8_t word) {
    return static_cast<SlotState>(word & 3);
}

// Cells
constexpr std::uint8_t kHead = 0;
constexpr std::uint8_t kRound = 1;
constexpr std::uint8_t kUsedEntries = 2;
constexpr std::uint8_t WordCell(unsigned slot) {
    return static_cast<std::uint8_t>(3 + slot);
}
constexpr std::uint8_t PayloadCell(unsigned slot, unsigned half) {
    return static_cast<std::uint8_t>(3 + kMaxSlots + 2 * slot + half);
}
constexpr std::uint8_t OwnerCell(unsigned entry) {
    return static_cast<std::uint8_t>(3 + 3 * kMaxSlots + entry);
}
constexpr std::uint8_t PinCell(unsigned entry) {
    return static_cast<std::uint8_t>(3 + 3 * kMaxSlots + kMaxEntries + entry);
}

// Threads: the writer, its successor, up to two readers, up to two reapers.
constexpr unsigned kWriter = 0;
constexpr unsigned kSuccessor = 1;
constexpr unsigned kFirstReader = 2;
constexpr unsigned kFirstReaper = 4;

enum Step : std::uint8_t {
    kIdle,
    kDone,
    // Writer
    kTakeOverWord,
    kTakeOverHead,
    kBegin,
    kFenceWriting,
    kFirstHalf,
    kSecondHalf,
    kMakeValid,
    kMoveHead,
    kClose,
    kNextRound,
    kLoadScanLimit,
    kScan,
    // Reader
    kLoadOwner,
    kTakeEntry,
    kClearTakenPin,
    kLoadUsedEntries,
    kRaiseUsedEntries,
    kChoose,
    kPin,
    kLoadAgain,
    kReadFirst,
    kReadSecond,
    kUnpin,
    kCopyFirst,
    kCopySecond,
    kCopyLoadAgain,
    kRelease,
    kReleasePinLate,
    // Reaper
    kReapLoad,
    kReapTake,
    kReapPin,
    kReapOwner,
};

enum Place : std::uint8_t { kRing, kStale, kPending, kFree };

constexpr const char* kFaults[] = {
    nullptr,
    "a pinned sample holds other bytes",
    "a copied sample holds other bytes",
    "the writer has no slot",
    "one of the newest samples is not readable",
    "an entry that is in use belongs to another process",
    "an entry or a pin is left at the end",
};
enum FaultNumber : std::uint32_t {
    kTorn = 1,
    kTornCopy,
    kNoSlot,
    kNotRetained,
    kStolenEntry,
    kLeft,
};

std::uint8_t ProcessOf(unsigned thread, unsigned life) {
    return static_cast<std::uint8_t>(1 + thread + kThreads * life);
}

// A thread's view of one state while it makes its step.
class Machine {
public:
    Machine(const Configuration& configuration, State& state, unsigned thread)
        : c(configuration), s(state), t(state.threads[thread]), index(thread) {}

    /// One step; false: the thread can make none now. @param choice where it has one.
    bool Run(unsigned choice);
    /// Writer: takes a slot for the next sample, or begins a reclaim.
    void Begin();

private:
    bool Writer();
    bool Reader(unsigned choice);
    bool Reaper();

    void Sort();
    void AfterPublish();
    void TakeOver();
    void NextEntry(Step load, Step when_all);

    Step AfterClaim() const {
        return Is(Mistake::kUsedEntriesRaisedAfterPin) ? kChoose : kLoadUsedEntries;
    }
    Step AfterUsedEntries() const {
        return Is(Mistake::kUsedEntriesRaisedAfterPin) ? kReadFirst : kChoose;
    }

    bool Is(Mistake mistake) const { return c.mistake == mistake; }
    bool Dead(std::uint8_t process) const { return (s.dead >> process & 1) != 0; }
    bool Drained() const { return t.buffered == 0; }

    std::uint8_t Load(std::uint8_t cell) const {
        for (unsigned i = t.buffered; i-- > 0;) {
            if (t.buffer[i].cell == cell) {
                return t.buffer[i].value;
            }
        }
        return s.cells[cell];
    }
    // False: the buffer is full, the thread waits.
    bool Store(std::uint8_t cell, unsigned value, bool release) {
        if (c.memory == MemoryModel::kSc) {
            s.cells[cell] = static_cast<std::uint8_t>(value);
            return true;
        }
        if (t.buffered == kBufferEntries) {
            return false;
        }
        t.buffer[t.buffered++] = {cell, static_cast<std::uint8_t>(value), release};
        return true;
    }
    bool Fence() {
        return c.memory != MemoryModel::kPso || t.buffered == 0 || Store(kFence, 0, true);
    }
    // Sequentially consistent: only with an empty buffer.
    void StoreNow(std::uint8_t cell, unsigned value) {
        s.cells[cell] = static_cast<std::uint8_t>(value);
    }

    const Configuration& c;
    State& s;
    Thread& t;
    const unsigned index;
};

unsigned CountPlace(const Configuration& c, const Thread& t, Place place) {
    return static_cast<unsigned>(std::count(t.places.begin(), t.places.begin() + c.slots(), place));
}

// The slot whose content is newest or oldest among those at the place; kMaxSlots: none.
unsigned Extreme(const Configuration& c, const Thread& t, Place place, bool newest) {
    unsigned found = kMaxSlots;
    for (unsigned slot = 0; slot < c.slots(); ++slot) {
        if (t.places[slot] == place &&
            (found == kMaxSlots ||
             (VersionOf(t.words[slot]) > VersionOf(t.words[found])) == newest)) {
            found = slot;
        }
    }
    return found;
}

void Machine::Begin() {
    if (t.rounds == 0) {
        t.step = kDone;
        return;
    }
    if (CountPlace(c, t, kFree) == 0 || CountPlace(c, t, kStale) >= c.batch) {
        t.step = Is(Mistake::kScanBeforeClosing) || Is(Mistake::kUsedEntriesLoadedBeforeClosing)
                     ? kLoadScanLimit
                     : kClose;
        return;
    }
    t.slot = static_cast<std::uint8_t>(Extreme(c, t, kFree, true));
    t.step = kBegin;
}

void Machine::Sort() {
    for (unsigned slot = 0; slot < c.slots(); ++slot) {
        if (t.places[slot] == kStale || t.places[slot] == kPending) {
            t.places[slot] = (t.busy >> slot & 1) != 0 ? kPending : kFree;
        }
    }
    t.busy = 0;
    if (CountPlace(c, t, kFree) == 0) {
        s.fault = kNoSlot;
    }
    Begin();
}

void Machine::AfterPublish() {
    t.places[t.slot] = kRing;
    const unsigned keep = c.retained - (Is(Mistake::kNewestClosed) ? 1 : 0);
    while (CountPlace(c, t, kRing) > keep) {
        t.places[Extreme(c, t, kRing, false)] = kStale;
    }
    ++t.version;
    --t.rounds;
    Begin();
}

// What a successor makes of the words that it found.
void Machine::TakeOver() {
    unsigned newest = 0;
    for (unsigned slot = 0; slot < c.slots(); ++slot) {
        const bool valid = StateOf(t.words[slot]) == kValid;
        newest = std::max(newest, VersionOf(t.words[slot]));
        t.places[slot] = valid ? kRing : Is(Mistake::kSuccessorTrustsFree) ? kFree : kPending;
    }
    while (CountPlace(c, t, kRing) > c.retained) {
        t.places[Extreme(c, t, kRing, false)] = kStale;
    }
    t.version = static_cast<std::uint8_t>(newest + 1);
    t.round = Load(kRound);
    t.step = kTakeOverHead;
}

bool Machine::Writer() {
    switch (t.step) {
        case kIdle:  // the successor
            if (!Dead(ProcessOf(kWriter, 0))) {
                return false;
            }
            t.process = ProcessOf(kSuccessor, 0);
            t.rounds = s.threads[kWriter].rounds;
            t.slot = 0;
            t.step = kTakeOverWord;
            return true;
        case kTakeOverWord:
            t.words[t.slot] = Load(WordCell(t.slot));
            if (++t.slot == c.slots()) {
                t.slot = 0;
                TakeOver();
            }
            return true;
        case kTakeOverHead: {
            const unsigned newest = Extreme(c, t, kRing, true);
            if (!Store(kHead, VersionOf(t.words[newest]), true)) {
                return false;
            }
            Begin();
            return true;
        }
        case kBegin:
            if (!Store(WordCell(t.slot), Pack(t.version, kWriting), false)) {
                return false;
            }
            t.words[t.slot] = Pack(t.version, kWriting);
            t.step = Is(Mistake::kPayloadNotAfterWriting) ? kFirstHalf : kFenceWriting;
            return true;
        case kFenceWriting:
            t.step = kFirstHalf;
            return Fence();
        case kFirstHalf:
        case kSecondHalf:
            if (!Store(PayloadCell(t.slot, t.step == kSecondHalf), t.version, false)) {
                return false;
            }
            t.step = t.step == kFirstHalf ? kSecondHalf : kMakeValid;
            return true;
        case kMakeValid:
            if (!Store(WordCell(t.slot), Pack(t.version, kValid), !Is(Mistake::kValidRelaxed))) {
                return false;
            }
            t.words[t.slot] = Pack(t.version, kValid);
            t.step = kMoveHead;
            return true;
        case kMoveHead:
            if (!Store(kHead, t.version, true)) {
                return false;
            }
            AfterPublish();
            return true;
        case kClose: {
            const unsigned slot = Extreme(c, t, kStale, false);
            if (slot == kMaxSlots || Is(Mistake::kFreeLeftValid)) {
                if (Is(Mistake::kScanBeforeClosing)) {
                    Sort();
                } else {
                    t.step = kNextRound;
                }
                return true;
            }
            const std::uint8_t closed = Pack(VersionOf(t.words[slot]), kClosed);
            if (!Store(WordCell(slot), closed, !Is(Mistake::kClosedRelaxed))) {
                return false;
            }
            t.words[slot] = closed;
            t.places[slot] = kPending;
            return true;
        }
        case kNextRound:
            if (Is(Mistake::kRoundNotSequential)) {
                if (!Store(kRound, t.round + 1U, true)) {
                    return false;
                }
            } else {
                if (!Drained()) {
                    return false;
                }
                StoreNow(kRound, t.round + 1U);
            }
            ++t.round;
            t.step = Is(Mistake::kUsedEntriesLoadedBeforeClosing) ? kScan : kLoadScanLimit;
            return true;
        case kLoadScanLimit:
            t.limit =
                std::min<std::uint8_t>(Load(kUsedEntries), static_cast<std::uint8_t>(c.entries));
            t.entry = 0;
            t.step = Is(Mistake::kUsedEntriesLoadedBeforeClosing) ? kClose : kScan;
            return true;
        case kScan: {
            if (t.entry < t.limit) {
                const std::uint8_t pin = Load(PinCell(t.entry));
                if (pin != 0) {
                    t.busy = static_cast<std::uint8_t>(t.busy | 1U << (pin - 1));
                }
                ++t.entry;
            }
            if (t.entry >= t.limit) {
                t.entry = 0;
                t.limit = 0;
                if (Is(Mistake::kScanBeforeClosing)) {
                    t.step = kClose;
                } else {
                    Sort();
                }
            }
            return true;
        }
        default:
            return false;
    }
}

void Machine::NextEntry(Step load, Step when_all) {
    t.seen = 0;
    if (++t.entry < c.entries) {
        t.step = load;
    } else {
        t.entry = kMaxEntries;
        t.step = when_all;
    }
}

bool Machine::Reader(unsigned choice) {
    const bool has_row = t.entry < kMaxEntries;
    if (t.step >= kClearTakenPin && t.step <= kRelease && has_row &&
        s.cells[OwnerCell(t.entry)] != t.process) {
        s.fault = kStolenEntry;
    }
    switch (t.step) {
        case kLoadOwner: {
            const std::uint8_t owner = Load(OwnerCell(t.entry));
            if (owner != 0 && !Dead(owner) && !Is(Mistake::kLiveReaderReaped)) {
                NextEntry(kLoadOwner, kChoose);
            } else {
                t.seen = owner;
                t.step = kTakeEntry;
            }
            return true;
        }
        case kTakeEntry:
            if (!Drained()) {
                return false;
            }
            if (s.cells[OwnerCell(t.entry)] != t.seen && !Is(Mistake::kClaimByStore)) {
                NextEntry(kLoadOwner, kChoose);
                return true;
            }
            StoreNow(OwnerCell(t.entry), t.process);
            t.step = t.seen != 0 ? kClearTakenPin : AfterClaim();
            t.seen = 0;
            return true;
        case kClearTakenPin:
            if (!Store(PinCell(t.entry), 0, true)) {
                return false;
            }
            t.step = AfterClaim();
            return true;
        case kLoadUsedEntries:
            t.seen = Load(kUsedEntries);
            if (t.seen > t.entry) {
                t.seen = 0;
                t.step = AfterUsedEntries();
            } else {
                t.step = kRaiseUsedEntries;
            }
            return true;
        case kRaiseUsedEntries:
            if (!Drained()) {
                return false;
            }
            if (s.cells[kUsedEntries] == t.seen || Is(Mistake::kUsedEntriesRaisedByStore)) {
                StoreNow(kUsedEntries, t.entry + 1U);
                t.step = AfterUsedEntries();
            } else {
                t.step = kLoadUsedEntries;
            }
            t.seen = 0;
            return true;
        case kChoose: {
            // Any slot may be wanted: which one is not the protocol's business.
            if (t.rounds == 0) {
                if (choice != 0) {
                    return false;
                }
                t.step = has_row ? kRelease : kDone;
                return true;
            }
            if (choice >= c.slots()) {
                return false;
            }
            const std::uint8_t word = Load(WordCell(choice));
            const bool pinnable = has_row && StateOf(word) == kValid;
            const bool copyable =
                c.copies && !pinnable && (StateOf(word) == kValid || StateOf(word) == kClosed);
            if (!pinnable && !copyable) {
                return false;
            }
            t.slot = static_cast<std::uint8_t>(choice);
            t.word = word;
            t.step = pinnable ? kPin : kCopyFirst;
            return true;
        }
        case kPin:
            if (Is(Mistake::kPinNotSequential)) {
                if (!Store(PinCell(t.entry), t.slot + 1U, true)) {
                    return false;
                }
            } else {
                if (!Drained()) {
                    return false;
                }
                StoreNow(PinCell(t.entry), t.slot + 1U);
            }
            t.step = Is(Mistake::kNoSecondLoad) ? kReadFirst : kLoadAgain;
            return true;
        case kLoadAgain:
            t.step = Load(WordCell(t.slot)) != t.word          ? kUnpin
                     : Is(Mistake::kUsedEntriesRaisedAfterPin) ? kLoadUsedEntries
                                                               : kReadFirst;
            return true;
        case kReadFirst:
        case kReadSecond:
            if (Load(PayloadCell(t.slot, t.step == kReadSecond)) != VersionOf(t.word)) {
                s.fault = kTorn;
            }
            t.step = t.step == kReadFirst ? kReadSecond : kUnpin;
            return true;
        case kUnpin: {
            // With the mistake the last pin is given up after the entry.
            const bool late = Is(Mistake::kOwnerClearedBeforePin) && t.rounds == 1;
            if (!late && !Store(PinCell(t.entry), 0, true)) {
                return false;
            }
            t.slot = t.word = 0;
            --t.rounds;
            t.step = kChoose;
            return true;
        }
        case kCopyFirst:
            t.copied = Load(PayloadCell(t.slot, 0));
            t.step = kCopySecond;
            return true;
        case kCopySecond: {
            const std::uint8_t second = Load(PayloadCell(t.slot, 1));
            // Two halves that agree are the version they name; else of none.
            t.copied = second == t.copied ? t.copied : std::uint8_t{0};
            t.step = kCopyLoadAgain;
            return true;
        }
        case kCopyLoadAgain: {
            const std::uint8_t word = Load(WordCell(t.slot));
            const bool good = VersionOf(word) == VersionOf(t.word) &&
                              (StateOf(word) == kValid || StateOf(word) == kClosed);
            if ((good || Is(Mistake::kCopyWithoutSecondLoad)) && t.copied != VersionOf(t.word)) {
                s.fault = kTornCopy;
            }
            t.slot = t.word = t.copied = 0;
            --t.rounds;
            t.step = kChoose;
            return true;
        }
        case kRelease:
            if (!Store(OwnerCell(t.entry), 0, !Is(Mistake::kOwnerClearedRelaxed))) {
                return false;
            }
            if (Is(Mistake::kOwnerClearedBeforePin)) {
                t.step = kReleasePinLate;
            } else {
                t.entry = kMaxEntries;
                t.step = kDone;
            }
            return true;
        case kReleasePinLate:
            if (!Store(PinCell(t.entry), 0, true)) {
                return false;
            }
            t.entry = kMaxEntries;
            t.step = kDone;
            return true;
        default:
            return false;
    }
}

bool Machine::Reaper() {
    const auto next = [&] {
        NextEntry(kReapLoad, kDone);
        if (t.step == kDone && --t.rounds > 0) {
            t.entry = 0;
            t.step = kReapLoad;
        }
    };
    switch (t.step) {
        case kReapLoad: {
            if (Is(Mistake::kReaperStopsAtUsedEntries) && t.entry >= Load(kUsedEntries)) {
                next();
                return true;
            }
            const std::uint8_t owner = Load(OwnerCell(t.entry));
            if (owner == 0 || (!Dead(owner) && !Is(Mistake::kLiveReaderReaped))) {
                next();
            } else {
                t.seen = owner;
                t.step = Is(Mistake::kReapersPlainStores) ? kReapPin : kReapTake;
            }
            return true;
        }
        case kReapTake:
            if (!Drained()) {
                return false;
            }
            if (s.cells[OwnerCell(t.entry)] == t.seen) {
                StoreNow(OwnerCell(t.entry), t.process);
                t.seen = 0;
                t.step = kReapPin;
            } else {
                next();
            }
            return true;
        case kReapPin:
            if (!Store(PinCell(t.entry), 0, true)) {
                return false;
            }
            t.step = kReapOwner;
            return true;
        case kReapOwner:
            if (!Store(OwnerCell(t.entry), 0, true)) {
                return false;
            }
            next();
            return true;
        default:
            return false;
    }
}

bool Machine::Run(unsigned choice) {
    if (t.step != kChoose && choice != 0) {
        return false;
    }
    if (index < kFirstReader) {
        return Writer();
    }
    return index < kFirstReaper ? Reader(choice) : Reaper();
}

// Makes the store at the place visible; false: it is not its turn.
bool Flush(MemoryModel memory, State& s, Thread& t, unsigned place) {
    const BufferedStore store = t.buffer[place];
    if (memory == MemoryModel::kTso && place > 0) {
        return false;
    }
    for (unsigned i = 0; i < place; ++i) {
        if (store.release != 0 || t.buffer[i].cell == kFence || t.buffer[i].cell == store.cell) {
            return false;
        }
    }
    s.cells[store.cell] = store.value;
    std::copy(t.buffer.begin() + place + 1, t.buffer.begin() + t.buffered,
              t.buffer.begin() + place);
    t.buffer[--t.buffered] = {};
    while (t.buffered > 0 && t.buffer[0].cell == kFence) {
        std::copy(t.buffer.begin() + 1, t.buffer.begin() + t.buffered, t.buffer.begin());
        t.buffer[--t.buffered] = {};
    }
    return true;
}

// What a process has stored is visible before its death is.
void Crash(State& s, unsigned index) {
    Thread& t = s.threads[index];
    while (t.buffered > 0) {
        Flush(MemoryModel::kTso, s, t, 0);
    }
    s.dead |= 1U << t.process;
    const std::uint8_t rounds = t.rounds;
    t = {};
    t.step = kDone;
    t.rounds = index == kWriter ? rounds : std::uint8_t{0};  // left to the successor
}

// A reader that has died is started again: under another identity, with the same lock number.
void Return(const Configuration& c, State& s, unsigned index, const Thread& before) {
    Thread& t = s.threads[index];
    t.process = static_cast<std::uint8_t>(before.process + kThreads);
    t.crashes = static_cast<std::uint8_t>(before.crashes - 1U);
    t.rounds = static_cast<std::uint8_t>(c.reads);
    t.step = kLoadOwner;
}

}  // namespace

State Initial(const Configuration& c) {
    State s{};
    Thread& writer = s.threads[kWriter];
    writer.process = ProcessOf(kWriter, 0);
    writer.crashes = c.writer_crashes;
    writer.rounds = static_cast<std::uint8_t>(c.samples);
    // As after one round: the newest samples in the ring, a full batch stale, the rest free.
    for (unsigned slot = 0; slot < c.slots(); ++slot) {
        const unsigned age = c.slots() - 1 - slot;  // in samples
        const bool free = age >= c.retained + c.batch;
        const unsigned version = slot + 1;
        writer.places[slot] = age < c.retained ? kRing : free ? kFree : kStale;
        writer.words[slot] = Pack(version, free ? kClosed : kValid);
        s.cells[WordCell(slot)] = writer.words[slot];
        s.cells[PayloadCell(slot, 0)] = s.cells[PayloadCell(slot, 1)] =
            static_cast<std::uint8_t>(version);
    }
    s.cells[kHead] = static_cast<std::uint8_t>(c.slots());
    writer.version = static_cast<std::uint8_t>(c.slots() + 1);
    Machine(c, s, kWriter).Begin();
    s.threads[kSuccessor].step = c.writer_crashes ? kIdle : kDone;
    for (unsigned i = kFirstReader; i < kThreads; ++i) {
        Thread& t = s.threads[i];
        const bool reader = i < kFirstReaper;
        if (i - (reader ? kFirstReader : kFirstReaper) >= (reader ? c.readers : c.reapers)) {
            t.step = kDone;
            continue;
        }
        t.process = ProcessOf(i, 0);
        t.step = reader ? kLoadOwner : kReapLoad;
        t.crashes = static_cast<std::uint8_t>(reader ? c.reader_crashes : c.reaper_crashes);
        t.rounds = static_cast<std::uint8_t>(reader ? c.reads : 1);
    }
    return s;
}

void Successors(const Configuration& c, const State& state, std::vector<State>& next) {
    for (unsigned i = 0; i < kThreads; ++i) {
        const Thread& t = state.threads[i];
        for (unsigned choice = 0; choice < (t.step == kChoose ? c.slots() : 1); ++choice) {
            State moved = state;
            if (Machine(c, moved, i).Run(choice)) {
                next.push_back(moved);
            }
        }
        for (unsigned place = 0; place < t.buffered; ++place) {
            State moved = state;
            if (Flush(c.memory, moved, moved.threads[i], place)) {
                next.push_back(moved);
            }
        }
        if (t.crashes > 0 && t.step != kDone) {
            next.push_back(state);
            Crash(next.back(), i);
            if (i >= kFirstReader && i < kFirstReaper) {
                next.push_back(next.back());
                Return(c, next.back(), i, t);
            }
        }
    }
}

const char* Fault(const Configuration& c, const State& s) {
    const unsigned head = s.cells[kHead];
    for (unsigned version = head + 1 - c.retained; version <= head; ++version) {
        const auto* const words = &s.cells[WordCell(0)];
        if (std::find(words, words + c.slots(), Pack(version, kValid)) == words + c.slots()) {
            return kFaults[kNotRetained];
        }
    }
    return kFaults[s.fault];
}

const char* FaultAtEnd(const Configuration& c, const State& state) {
    for (unsigned entry = 0; entry < c.entries; ++entry) {
        const std::uint8_t owner = state.cells[OwnerCell(entry)];
        const bool reaped =
            owner != 0 && (state.dead >> owner & 1) != 0 &&
            (c.mistake != Mistake::kReaperStopsAtUsedEntries || entry < state.cells[kUsedEntries]);
        if (!reaped && (owner != 0 || state.cells[PinCell(entry)] != 0)) {
            return kFaults[kLeft];
        }
    }
    return nullptr;
}

}  // namespace kvo::model
