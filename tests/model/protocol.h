#pragma once

#include "state.h"

#include <vector>

namespace kvo::model {

/// What can be got wrong. Each one must be found by the search.
enum class Mistake {
    kNone,
    kPinNotSequential,                // the pin's store is not awaited before the second load
    kRoundNotSequential,              // the store between closing and scanning is not awaited
    kClosedRelaxed,                   // closing may become visible before the newer sample
    kNoSecondLoad,                    // after pinning the word is not loaded again
    kCopyWithoutSecondLoad,           // after copying neither
    kUsedEntriesLoadedBeforeClosing,  // the scan's bound is older than the closing
    kScanBeforeClosing,
    kUsedEntriesRaisedAfterPin,
    kUsedEntriesRaisedByStore,  // by load and store instead of compare and exchange
    kFreeLeftValid,             // slots are reused without having been closed
    kSuccessorTrustsFree,       // a new writer reuses what is not valid without a scan
    kOwnerClearedBeforePin,     // a reader gives its entry back too early
    kOwnerClearedRelaxed,
    kValidRelaxed,            // a slot may become valid before its payload is there
    kPayloadNotAfterWriting,  // or its payload change before it is marked
    kClaimByStore,            // an entry is claimed by load and store
    kLiveReaderReaped,
    kReapersPlainStores,  // two reapers clear an entry without taking it over
    kReaperStopsAtUsedEntries,
    kSlotShort,     // N + Z * P slots
    kNewestClosed,  // one of the newest N is closed
};

struct Configuration {
    MemoryModel memory = MemoryModel::kSc;
    Mistake mistake = Mistake::kNone;
    unsigned retained = 1;  // N
    unsigned entries = 1;   // Z; a reader has one pin
    unsigned batch = 2;     // B
    unsigned samples = 3;   // written in the search, after every slot has been used once
    unsigned readers = 1;
    unsigned reads = 1;           // of each reader before it gives its entry back
    bool copies = false;          // readers without a pin copy
    unsigned reader_crashes = 0;  // of each, which then returns under another identity
    bool writer_crashes = false;  // a successor takes over
    unsigned reapers = 0;
    unsigned reaper_crashes = 0;

    unsigned slots() const {
        return retained + entries + (mistake == Mistake::kSlotShort ? 0 : batch);
    }
};

State Initial(const Configuration& configuration);

/// All states that one step of one process, or one store that becomes visible, can lead to.
void Successors(const Configuration& configuration, const State& state, std::vector<State>& next);

/// What is wrong in this state; null: nothing. Includes what a step noticed.
const char* Fault(const Configuration& configuration, const State& state);

/// What is wrong with the end of an execution, after one more reaper's pass; null: nothing.
const char* FaultAtEnd(const Configuration& configuration, const State& state);

}  // namespace kvo::model
