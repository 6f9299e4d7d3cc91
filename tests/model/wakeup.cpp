// Searches every interleaving of the wake-ups of a local topic, as
// platform/cor/src/topic_signal.cpp runs them: readers go to sleep, writers count events and wake,
// anyone may be killed or stopped for ever at any step, and the server nudges after a writer's
// death. Nobody may sleep through an event that somebody has got through with telling of, whoever
// else stands still on his way. All shared accesses there are sequentially consistent, or the
// order between them does not matter, so interleavings are all there is. Then the same with
// mistakes, each of which must be found.
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
    kMarkStored,      // the mark is stored, whatever stands there
    kWordBeforeMark,  // the word is not looked at again after marking
    kMarkTakenBack,   // who wakes clears the mark
    kOnlyEqualMark,   // a mark newer than the word before is taken for one that needs no wake-up
    kNoNudge,         // nobody wakes after the death of a writer
    kWokenNotAsked,   // an older mark is always taken for one that somebody has woken for
    kWokenTooEarly,   // marks that the word has not passed are noted as woken for, too
    kWokenBeforeWake  // it is noted before it is done
};

constexpr unsigned kReaders = 2;
constexpr unsigned kWriters = 2;
constexpr std::int8_t kNoMark = -1;      // older than any
constexpr std::int8_t kNeverWoken = -2;  // no mark is that

enum class Step : std::uint8_t {
    kLook,
    kLoadMark,
    kCheck,
    kMark,
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
    kLoadMark,
    kLoadWoken,
    kTakeBack,
    kWake,
    kNote,
    kDone,
    kGone
};
struct Writer {
    WriterStep step = WriterStep::kAdd;
    std::int8_t before = 0;  // the word as it was found
    std::int8_t mark = 0;    // as it was found
    std::uint8_t left = 0;   // events to count
    auto operator<=>(const Writer&) const = default;
};
struct State {
    std::int8_t word = 0;
    std::int8_t mark = kNoMark;
    std::int8_t woken = kNeverWoken;
    std::int8_t told = 0;     // the word after the newest event that somebody has told of
    std::uint8_t deaths = 0;  // of writers that the server has still to nudge for
    bool wakes_all = false;   // the server has still to wake
    std::array<Writer, kWriters> writers{Writer{.left = 1}, Writer{.left = 2}};
    std::array<Reader, kReaders> readers;
    auto operator<=>(const State&) const = default;
};

class Search {
public:
    explicit Search(Mistake mistake) : mistake_(mistake) {}

    /// @return a state in which somebody sleeps and nobody will wake him.
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
                    return reader.step == Step::kAsleep && reader.seen < state.told;
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
                    w.before = s.word++;
                    w.step = WriterStep::kLoadMark;
                }
                break;
            case WriterStep::kLoadMark:
                w.mark = s.mark;
                w.step = w.mark > w.before && Is(Mistake::kOnlyEqualMark) ? WriterStep::kAdd
                         : w.mark >= w.before                             ? BeforeWake()
                                                                          : WriterStep::kLoadWoken;
                break;
            case WriterStep::kLoadWoken:
                w.step = w.mark == s.woken || Is(Mistake::kWokenNotAsked) ? WriterStep::kAdd
                                                                          : BeforeWake();
                break;
            case WriterStep::kTakeBack:
                s.mark = kNoMark;
                w.step = WriterStep::kWake;
                break;
            case WriterStep::kWake:
                WakeAll(s);
                w.step = Is(Mistake::kWokenBeforeWake) ? WriterStep::kAdd : WriterStep::kNote;
                break;
            case WriterStep::kNote:
                if (w.mark <= w.before || Is(Mistake::kWokenTooEarly)) {
                    s.woken = w.mark;
                }
                w.step = Is(Mistake::kWokenBeforeWake) ? WriterStep::kWake : WriterStep::kAdd;
                break;
            default:
                return;
        }
        if (w.step == WriterStep::kAdd || w.step == WriterStep::kDone) {
            s.told = std::max(s.told, static_cast<std::int8_t>(w.before + 1));
            w.before = w.mark = 0;
        }
        Take(s);
    }
    WriterStep BeforeWake() const {
        return Is(Mistake::kMarkTakenBack)     ? WriterStep::kTakeBack
               : Is(Mistake::kWokenBeforeWake) ? WriterStep::kNote
                                               : WriterStep::kWake;
    }
    void Server(State s) {
        if (s.wakes_all) {
            WakeAll(s);
            s.wakes_all = false;
        } else if (s.deaths > 0 && !Is(Mistake::kNoNudge)) {
            ++s.word;
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
                r.seen = s.word;  // and everything up to it is given out
                r.step = Step::kLoadMark;
                break;
            case Step::kLoadMark:
                r.found = s.mark;
                r.step = r.found == r.seen ? Step::kCheckAgain : Step::kCheck;
                break;
            case Step::kCheck:
                r.step = s.word == r.seen || Is(Mistake::kMarkStored) ? Step::kMark : Step::kLook;
                break;
            case Step::kMark:
                if (s.mark == r.found || Is(Mistake::kMarkStored)) {
                    s.mark = r.seen;
                    r.step = Step::kCheckAgain;
                } else {
                    r.found = s.mark;
                    r.step = r.found == r.seen ? Step::kCheckAgain : Step::kCheck;
                }
                break;
            case Step::kCheckAgain:
                r.step =
                    s.word == r.seen || Is(Mistake::kWordBeforeMark) ? Step::kSleep : Step::kLook;
                break;
            case Step::kSleep:  // the kernel compares
                r.step =
                    s.word == r.seen || Is(Mistake::kWordBeforeMark) ? Step::kAsleep : Step::kLook;
                break;
            default:
                return;
        }
        r.found = r.step == Step::kCheck || r.step == Step::kMark ? r.found : std::int8_t{0};
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
            killed.told = killed.word;  // the server tells of it
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
        std::cerr << "kvo-wakeup-model: somebody sleeps through an event\n";
        return 1;
    }
    std::cout << right.states() << " states, nobody sleeps through an event\n";
    constexpr std::array kMistakes{Mistake::kMarkStored,    Mistake::kWordBeforeMark,
                                   Mistake::kMarkTakenBack, Mistake::kOnlyEqualMark,
                                   Mistake::kNoNudge,       Mistake::kWokenNotAsked,
                                   Mistake::kWokenTooEarly, Mistake::kWokenBeforeWake};
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
