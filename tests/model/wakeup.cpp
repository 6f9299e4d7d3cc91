// Searches every interleaving of the wake-ups of a local topic, as
// platform/cor/src/local/topic_signal.cpp runs them: readers go to sleep, writers notify and wake,
// each may be killed or stopped for ever at any step, and the server wakes after a writer's death.
// No reader may sleep through an event whose notification has ended, wherever the other processes
// are stopped. All shared accesses there are sequentially consistent, or the order between them
// does not matter, so interleavings are all there is. Then the same with mistakes, each of which
// must be found.
#include <algorithm>
#include <array>
#include <cstdint>
#include <iostream>
#include <optional>
#include <set>
#include <vector>

namespace {

enum class Mistake {
    kNone,
    kFlagStored,          // the flag is stored, whatever it was
    kSequenceBeforeFlag,  // the sequence is not loaded again after the flag is set
    kFlagCleared,         // a writer that wakes clears the flag
    kOnlyEqualFlag,  // a flag newer than the sequence before is taken for one that needs no wake-up
    kNoWakeAfterDeath,  // the server does not wake after the death of a writer
    kWokenNotLoaded,    // an older flag is always taken for one whose waking is over
    kWokenTooEarly,     // flags that the sequence has not passed are stored as woken, too
    kWokenBeforeWake    // the waking is stored before it is done
};

constexpr unsigned kReaders = 2;
constexpr unsigned kWriters = 2;
constexpr std::int8_t kNoFlag = -1;      // older than any
constexpr std::int8_t kNeverWoken = -2;  // no flag is that

enum class Step : std::uint8_t {
    kLook,
    kLoadFlag,
    kCheck,
    kSetFlag,
    kCheckAgain,
    kSleep,
    kAsleep,
    kDead
};
struct Reader {
    Step step = Step::kLook;
    std::int8_t seen = 0;
    std::int8_t found = 0;
    auto operator<=>(const Reader&) const = default;
};

enum class WriterStep : std::uint8_t {
    kAdd,
    kLoadFlag,
    kLoadWoken,
    kClearFlag,
    kWake,
    kStoreWoken,
    kDone,
    kGone
};
struct Writer {
    WriterStep step = WriterStep::kAdd;
    std::int8_t before = 0;  // the sequence as it was found
    std::int8_t flag = 0;    // as it was found
    std::uint8_t left = 0;   // events to notify of
    auto operator<=>(const Writer&) const = default;
};
struct State {
    std::int8_t sequence = 0;
    std::int8_t flag = kNoFlag;
    std::int8_t woken = kNeverWoken;
    std::int8_t notified = 0;  // the sequence after the newest event whose notification has ended
    std::uint8_t deaths = 0;   // of writers that the server has still to wake for
    bool wakes_all = false;    // the server has still to wake
    std::array<Writer, kWriters> writers{Writer{.left = 1}, Writer{.left = 2}};
    std::array<Reader, kReaders> readers;
    auto operator<=>(const State&) const = default;
};

class Search {
public:
    explicit Search(Mistake mistake) : mistake_(mistake) {}

    /// @return a state in which a reader sleeps and no process will wake it.
    std::optional<State> Run() {
        Reach({});
        while (!open_.empty()) {
            const State state = open_.back();
            open_.pop_back();
            const std::size_t before = steps_;
            for (unsigned i = 0; i < kWriters; ++i) {
                Write(state, i);
            }
            Server(state);
            for (unsigned i = 0; i < kReaders; ++i) {
                Read(state, i);
            }
            const bool over = steps_ == before;
            Ends(state);
            if (over &&
                std::any_of(state.readers.begin(), state.readers.end(), [&](const Reader& reader) {
                    return reader.step == Step::kAsleep && reader.seen < state.notified;
                })) {
                return state;
            }
        }
        return std::nullopt;
    }
    std::size_t states() const { return visited_.size(); }

private:
    bool Is(Mistake mistake) const { return mistake_ == mistake; }
    void Reach(State state) {
        std::sort(state.readers.begin(), state.readers.end());  // which is which does not matter
        if (visited_.insert(state).second) {
            open_.push_back(state);
        }
    }
    void Take(const State& state) {
        ++steps_;
        Reach(state);
    }
    static void WakeAll(State& s) {
        for (Reader& reader : s.readers) {
            reader.step = reader.step == Step::kAsleep ? Step::kLook : reader.step;
        }
    }

    void Write(State s, unsigned number) {
        Writer& w = s.writers[number];
        switch (w.step) {
            case WriterStep::kAdd:
                if (w.left == 0) {
                    w.step = WriterStep::kDone;
                } else {
                    --w.left;
                    w.before = s.sequence++;
                    w.step = WriterStep::kLoadFlag;
                }
                break;
            case WriterStep::kLoadFlag:
                w.flag = s.flag;
                w.step = w.flag > w.before && Is(Mistake::kOnlyEqualFlag) ? WriterStep::kAdd
                         : w.flag >= w.before                             ? BeforeWake()
                                                                          : WriterStep::kLoadWoken;
                break;
            case WriterStep::kLoadWoken:
                w.step = w.flag == s.woken || Is(Mistake::kWokenNotLoaded) ? WriterStep::kAdd
                                                                           : BeforeWake();
                break;
            case WriterStep::kClearFlag:
                s.flag = kNoFlag;
                w.step = WriterStep::kWake;
                break;
            case WriterStep::kWake:
                WakeAll(s);
                w.step = Is(Mistake::kWokenBeforeWake) ? WriterStep::kAdd : WriterStep::kStoreWoken;
                break;
            case WriterStep::kStoreWoken:
                if (w.flag <= w.before || Is(Mistake::kWokenTooEarly)) {
                    s.woken = w.flag;
                }
                w.step = Is(Mistake::kWokenBeforeWake) ? WriterStep::kWake : WriterStep::kAdd;
                break;
            default:
                return;
        }
        if (w.step == WriterStep::kAdd || w.step == WriterStep::kDone) {
            s.notified = std::max(s.notified, static_cast<std::int8_t>(w.before + 1));
            w.before = w.flag = 0;
        }
        Take(s);
    }
    WriterStep BeforeWake() const {
        return Is(Mistake::kFlagCleared)       ? WriterStep::kClearFlag
               : Is(Mistake::kWokenBeforeWake) ? WriterStep::kStoreWoken
                                               : WriterStep::kWake;
    }
    void Server(State s) {
        if (s.wakes_all) {
            WakeAll(s);
            s.wakes_all = false;
        } else if (s.deaths > 0 && !Is(Mistake::kNoWakeAfterDeath)) {
            ++s.sequence;
            s.deaths = 0;
            s.wakes_all = true;
        } else {
            return;
        }
        Take(s);
    }
    void Read(State s, unsigned number) {
        Reader& r = s.readers[number];
        switch (r.step) {
            case Step::kLook:
                r.seen = s.sequence;  // and everything up to it is given out
                r.step = Step::kLoadFlag;
                break;
            case Step::kLoadFlag:
                r.found = s.flag;
                r.step = r.found == r.seen ? Step::kCheckAgain : Step::kCheck;
                break;
            case Step::kCheck:
                r.step =
                    s.sequence == r.seen || Is(Mistake::kFlagStored) ? Step::kSetFlag : Step::kLook;
                break;
            case Step::kSetFlag:
                if (s.flag == r.found || Is(Mistake::kFlagStored)) {
                    s.flag = r.seen;
                    r.step = Step::kCheckAgain;
                } else {
                    r.found = s.flag;
                    r.step = r.found == r.seen ? Step::kCheckAgain : Step::kCheck;
                }
                break;
            case Step::kCheckAgain:
                r.step = s.sequence == r.seen || Is(Mistake::kSequenceBeforeFlag) ? Step::kSleep
                                                                                  : Step::kLook;
                break;
            case Step::kSleep:  // the kernel compares
                r.step = s.sequence == r.seen || Is(Mistake::kSequenceBeforeFlag) ? Step::kAsleep
                                                                                  : Step::kLook;
                break;
            default:
                return;
        }
        r.found = r.step == Step::kCheck || r.step == Step::kSetFlag ? r.found : std::int8_t{0};
        Take(s);
    }
    void Ends(const State& state) {
        for (unsigned i = 0; i < kWriters; ++i) {
            if (const WriterStep step = state.writers[i].step;
                step == WriterStep::kDone || step == WriterStep::kGone) {
                continue;
            }
            State stopped = state;
            stopped.writers[i] = {WriterStep::kGone, 0, 0, 0};
            Reach(stopped);
            State killed = stopped;
            killed.deaths += 1;
            killed.notified = killed.sequence;  // the server notifies of it
            Reach(killed);
        }
        for (unsigned i = 0; i < kReaders; ++i) {
            State s = state;
            s.readers[i] = {Step::kDead, 0, 0};
            Reach(s);
        }
    }

    const Mistake mistake_;
    std::size_t steps_ = 0;  // made so far, deaths not counted
    std::set<State> visited_;
    std::vector<State> open_;
};

}  // namespace

int main() {
    Search right(Mistake::kNone);
    if (right.Run()) {
        std::cerr << "kvo-wakeup-model: a reader sleeps through an event\n";
        return 1;
    }
    std::cout << right.states() << " states, no reader sleeps through an event\n";
    constexpr std::array kMistakes{Mistake::kFlagStored,       Mistake::kSequenceBeforeFlag,
                                   Mistake::kFlagCleared,      Mistake::kOnlyEqualFlag,
                                   Mistake::kNoWakeAfterDeath, Mistake::kWokenNotLoaded,
                                   Mistake::kWokenTooEarly,    Mistake::kWokenBeforeWake};
    for (const Mistake mistake : kMistakes) {
        if (!Search(mistake).Run()) {
            std::cerr << "kvo-wakeup-model: seeded mistake " << static_cast<int>(mistake)
                      << " is not found\n";
            return 1;
        }
    }
    std::cout << kMistakes.size() << " seeded mistakes found\n";
    return 0;
}
