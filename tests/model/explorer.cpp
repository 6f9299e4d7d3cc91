#include "explorer.h"

#include <xxhash.h>

#include <utility>
#include <vector>

namespace kvo::model {
namespace {

/// Remembers states by a 128-bit digest; two of 10^8 states share one with a chance below 10^-22.
class Visited {
public:
    Visited() : entries_(1U << 16) {}

    bool Insert(const State& state) {
        const XXH128_hash_t digest = XXH3_128bits(&state, sizeof state);
        if (2 * size_ >= entries_.size()) {
            Grow();
        }
        const bool added = Place({digest.low64 | 1, digest.high64});
        size_ += added;
        return added;
    }
    std::uint64_t size() const { return size_; }

private:
    using Entry = std::pair<std::uint64_t, std::uint64_t>;  // first 0: free

    bool Place(const Entry& entry) {
        const std::size_t mask = entries_.size() - 1;
        for (std::size_t i = entry.second & mask;; i = (i + 1) & mask) {
            if (entries_[i] == entry) {
                return false;
            }
            if (entries_[i].first == 0) {
                entries_[i] = entry;
                return true;
            }
        }
    }
    void Grow() {
        std::vector<Entry> before(entries_.size() * 2);
        before.swap(entries_);
        for (const Entry& entry : before) {
            if (entry.first != 0) {
                Place(entry);
            }
        }
    }

    std::vector<Entry> entries_;  // a power of two, at most half full
    std::uint64_t size_ = 0;
};

}  // namespace

Outcome Explore(const Configuration& configuration, std::uint64_t most_states) {
    Outcome outcome;
    Visited visited;
    std::vector<State> open{Initial(configuration)};
    std::vector<State> next;
    visited.Insert(open.back());
    while (!open.empty() && outcome.fault == nullptr) {
        const State state = open.back();
        open.pop_back();
        next.clear();
        Successors(configuration, state, next);
        outcome.fault = Fault(configuration, state);
        if (next.empty() && outcome.fault == nullptr) {
            outcome.fault = FaultAtEnd(configuration, state);
        }
        if (visited.size() > most_states) {
            outcome.complete = false;
            break;
        }
        for (const State& candidate : next) {
            if (visited.Insert(candidate)) {
                open.push_back(candidate);
            }
        }
    }
    outcome.states = visited.size();
    return outcome;
}

}  // namespace kvo::model
