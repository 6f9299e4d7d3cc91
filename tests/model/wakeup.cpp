// Searches every interleaving of the wake-ups of a local topic, as
// platform/cor/src/topic_signal.cpp runs them: readers go to sleep, a writer counts events and
// wakes, anyone may be killed at any step, and the server nudges after the writer's death. Nobody
// may sleep through an event. All shared accesses there are sequentially consistent, so
// interleavings are all there is. Then the same with mistakes, each of which must be found.
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
};

constexpr unsigned kReaders = 2;
constexpr std::int8_t kNoMark = -1;  // older than any

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

enum class WriterStep : std::uint8_t { kAdd, kLoadMark, kTakeBack, kWake, kDone, kDead };
struct State {
    std::int8_t word = 0;
    std::int8_t mark = kNoMark;
    WriterStep writer = WriterStep::kAdd;
    std::int8_t before = 0;  // the word as the writer found it
    std::uint8_t left = 3;   // events to count
    bool nudged = false;     // by the server, after the writer's death
    bool wakes_all = false;  // the server has still to wake
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
            Writer(state);
            Server(state);
            for (unsigned i = 0; i < kReaders; ++i) {
                Read(state, i);
            }
            const bool over = steps_ == before;
            Deaths(state);
            if (over &&
                std::any_of(state.readers.begin(), state.readers.end(), [&](const Reader& reader) {
                    return reader.step == Step::kAsleep && reader.seen != state.word;
                })) {
                return state;
            }
        }
        return std::nullopt;
    }
    std::size_t states() const { return visited_.size(); }

private:
    bool Is(Mistake mistake) const { return mistake_ == mistake; }
    void Reach(const State& state) {
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

    void Writer(State s) {
        switch (s.writer) {
            case WriterStep::kAdd:
                if (s.left == 0) {
                    s.writer = WriterStep::kDone;
                } else {
                    --s.left;
                    s.before = s.word++;
                    s.writer = WriterStep::kLoadMark;
                }
                break;
            case WriterStep::kLoadMark:
                s.writer = s.mark < s.before || (s.mark > s.before && Is(Mistake::kOnlyEqualMark))
                               ? WriterStep::kAdd
                           : Is(Mistake::kMarkTakenBack) ? WriterStep::kTakeBack
                                                         : WriterStep::kWake;
                break;
            case WriterStep::kTakeBack:
                s.mark = kNoMark;
                s.writer = WriterStep::kWake;
                break;
            case WriterStep::kWake:
                WakeAll(s);
                s.writer = WriterStep::kAdd;
                break;
            default:
                return;
        }
        Take(s);
    }
    void Server(State s) {
        if (s.wakes_all) {
            WakeAll(s);
            s.wakes_all = false;
        } else if (s.writer == WriterStep::kDead && !s.nudged && !Is(Mistake::kNoNudge)) {
            ++s.word;
            s.nudged = true;
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
    void Deaths(const State& state) {
        if (state.writer != WriterStep::kDone && state.writer != WriterStep::kDead) {
            State s = state;
            s.writer = WriterStep::kDead;
            Reach(s);
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
    for (const Mistake mistake :
         {Mistake::kMarkStored, Mistake::kWordBeforeMark, Mistake::kMarkTakenBack,
          Mistake::kOnlyEqualMark, Mistake::kNoNudge}) {
        if (!Search(mistake).Run()) {
            std::cerr << "kvo-wakeup-model: seeded mistake " << static_cast<int>(mistake)
                      << " is not found\n";
            return 1;
        }
    }
    std::cout << "5 seeded mistakes found\n";
    return 0;
}
