// Searches every interleaving of the stream file's protocol, and proves that the search sees:
// each seeded mistake must be found in just the memory models that show it.
#include "explorer.h"

#include <CLI/CLI.hpp>

#include <array>
#include <chrono>
#include <iostream>
#include <string>
#include <vector>

namespace {

using kvo::model::Configuration;
using kvo::model::Explore;
using kvo::model::MemoryModel;
using kvo::model::Mistake;
using kvo::model::Outcome;

constexpr std::array kModels{MemoryModel::kSc, MemoryModel::kTso, MemoryModel::kPso};
constexpr std::array<const char*, 3> kModelNames{"SC", "TSO", "PSO"};
constexpr std::uint64_t kMostStates = 130'000'000;  // of 16 bytes each, in a table half full

struct Case {
    const char* name;
    Configuration configuration;
    unsigned models;        // one bit each
    unsigned quick_models;  // those searched with --quick
};
constexpr unsigned kSc = 1;
constexpr unsigned kTso = 2;
constexpr unsigned kPso = 4;
constexpr unsigned kAll = kSc | kTso | kPso;

constexpr Configuration kSmall{
    .retained = 1, .entries = 1, .batch = 2, .samples = 3, .readers = 1, .reads = 2};
constexpr Configuration kCopying{.samples = 3, .reads = 2, .copies = true};
constexpr Configuration kCompeting{.samples = 3, .readers = 2, .reads = 2};
constexpr Configuration kTwoEntries{.entries = 2, .samples = 2, .readers = 2};
constexpr Configuration kTakenOver{.samples = 3, .writer_crashes = true};
constexpr Configuration kReaped{.samples = 2, .readers = 2, .reader_crashes = 1, .reapers = 1};
constexpr Configuration AllCrash(unsigned readers) {
    return {.samples = 2,
            .readers = readers,
            .copies = true,
            .reader_crashes = 1,
            .writer_crashes = true,
            .reapers = 1,
            .reaper_crashes = 1};
}

std::vector<Case> Cases() {
    Configuration two_retained = kCompeting;
    two_retained.retained = 2;
    Configuration writer_too = kReaped;
    writer_too.reapers = 0;
    writer_too.writer_crashes = true;
    Configuration two_reapers = kReaped;
    two_reapers.reapers = 2;
    two_reapers.reaper_crashes = 1;
    return {
        {"one reader, two samples each", kSmall, kAll, kAll},
        {"one reader that also copies", kCopying, kAll, kAll},
        {"two readers, one entry", kCompeting, kAll, kAll},
        {"two readers, one entry, two samples retained", two_retained, kAll, kAll},
        {"two readers, two entries", kTwoEntries, kAll, kAll},
        {"one reader, the writer is replaced", kTakenOver, kAll, kAll},
        {"two readers that crash and return, a reaper", kReaped, kAll, kSc | kTso},
        {"two readers and the writer crash", writer_too, kAll, kSc | kTso},
        {"one reader, all crash", AllCrash(1), kAll, kAll},
        {"two readers, two reapers, all crash", two_reapers, kAll, kSc},
        {"two readers, all crash", AllCrash(2), kSc, 0},
    };
}

struct Seed {
    const char* name;
    Mistake mistake;
    Configuration configuration;
    unsigned found_in;
};

std::vector<Seed> Seeds() {
    return {
        {"pin not awaited", Mistake::kPinNotSequential, kSmall, kTso | kPso},
        {"round not awaited", Mistake::kRoundNotSequential, kSmall, kTso | kPso},
        {"closed relaxed", Mistake::kClosedRelaxed, kSmall, kPso},
        {"no second load", Mistake::kNoSecondLoad, kSmall, kAll},
        {"copy without second load", Mistake::kCopyWithoutSecondLoad, kCopying, kAll},
        {"used entries loaded before closing", Mistake::kUsedEntriesLoadedBeforeClosing, kSmall,
         kAll},
        {"scan before closing", Mistake::kScanBeforeClosing, kSmall, kAll},
        {"used entries raised after the pin", Mistake::kUsedEntriesRaisedAfterPin, kSmall, kAll},
        {"used entries raised by a store", Mistake::kUsedEntriesRaisedByStore, kTwoEntries, kAll},
        {"free slots left valid", Mistake::kFreeLeftValid, kSmall, kAll},
        {"successor trusts the free list", Mistake::kSuccessorTrustsFree, kTakenOver, kAll},
        {"owner cleared before the pin", Mistake::kOwnerClearedBeforePin, kCompeting, kAll},
        {"owner cleared relaxed", Mistake::kOwnerClearedRelaxed, kCompeting, kPso},
        {"valid relaxed", Mistake::kValidRelaxed, kSmall, kPso},
        {"payload not after writing", Mistake::kPayloadNotAfterWriting, kCopying, kPso},
        {"entry claimed by a store", Mistake::kClaimByStore, kCompeting, kAll},
        {"living reader reaped", Mistake::kLiveReaderReaped, kCompeting, kAll},
        {"reapers without taking over", Mistake::kReapersPlainStores, kReaped, kAll},
        {"reaper stops at the used entries", Mistake::kReaperStopsAtUsedEntries, kReaped, kAll},
        {"one slot short", Mistake::kSlotShort, kSmall, kAll},
        {"one of the newest closed", Mistake::kNewestClosed, kSmall, kAll},
    };
}

struct Timed {
    Outcome outcome;
    double seconds;
};

Timed Search(Configuration configuration, MemoryModel memory) {
    configuration.memory = memory;
    const auto begin = std::chrono::steady_clock::now();
    const Outcome outcome = Explore(configuration, kMostStates);
    return {outcome,
            std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count()};
}

bool SearchCases(bool quick) {
    bool good = true;
    for (const Case& searched : Cases()) {
        for (std::size_t i = 0; i < kModels.size(); ++i) {
            if (((quick ? searched.quick_models : searched.models) >> i & 1) == 0) {
                continue;
            }
            const auto [outcome, seconds] = Search(searched.configuration, kModels[i]);
            const bool clean = outcome.fault == nullptr && outcome.complete;
            good = good && clean;
            std::cout << kModelNames[i] << ", " << searched.name << ": " << outcome.states
                      << " states, "
                      << (outcome.fault != nullptr ? outcome.fault
                          : outcome.complete       ? "no fault"
                                                   : "stopped at the limit")
                      << " (" << seconds << " s)" << std::endl;
        }
    }
    return good;
}

bool SearchSeeds() {
    bool good = true;
    for (const Seed& seed : Seeds()) {
        for (std::size_t i = 0; i < kModels.size(); ++i) {
            Configuration configuration = seed.configuration;
            configuration.mistake = seed.mistake;
            const Outcome outcome = Search(configuration, kModels[i]).outcome;
            const bool expected = (seed.found_in >> i & 1) != 0;
            if ((outcome.fault != nullptr) != expected) {
                good = false;
                std::cout << kModelNames[i] << ", mistake \"" << seed.name
                          << "\": " << (expected ? "not found" : outcome.fault) << std::endl;
            }
        }
    }
    std::cout << Seeds().size() << " seeded mistakes in " << kModels.size()
              << " memory models: " << (good ? "each found where it shows" : "see above")
              << std::endl;
    return good;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Searches every interleaving of the stream file's protocol.");
    bool quick = false;
    app.add_flag("--quick", quick, "leave out the searches that take minutes");
    CLI11_PARSE(app, argc, argv);
    const bool seeds = SearchSeeds();
    const bool cases = SearchCases(quick);
    return seeds && cases ? 0 : 1;
}
