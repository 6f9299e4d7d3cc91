// Writer and readers of one stream, killed, stopped and restarted at random moments. Every sample
// that a reader gets must be whole and in its place, and every gap accounted for.
#include "kvo/memory/inspection.h"
#include "processes.h"
#include "sample_stream.h"

#include <CLI/CLI.hpp>
#include <xxhash.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using kvo::KvoMemoryAccessor;
using kvo::StreamFile;
using namespace kvo::stress;

constexpr std::size_t kReaders = 8;
constexpr int kMaxPayload = 2048;
constexpr int kRetained = 8;
constexpr const char* kStream = "kill/test";

std::string StreamIn(const std::string& directory) {
    return directory + "/stream";
}
std::string TotalsIn(const std::string& directory) {
    return directory + "/totals";
}

// What the processes tell of themselves. relaxed: only sums.
struct Totals {
    std::atomic<std::uint64_t> written;
    std::atomic<std::uint64_t> read;
    std::atomic<std::uint64_t> copied;
    std::atomic<std::uint64_t> lost;
    std::atomic<std::uint64_t> epochs;  // that readers went over to
};

// A payload: its digest, the epoch that it was written for, and bytes.
struct Head {
    std::uint64_t digest;  // of everything behind it
    std::uint64_t epoch;
};

std::uint64_t DigestOf(const unsigned char* payload, std::size_t bytes) {
    return XXH3_64bits(payload + sizeof(std::uint64_t), bytes - sizeof(std::uint64_t));
}

void Write(const std::string& path, Totals& totals) {
    const auto opened = kvo::test::OpenWriter(path, kStream, kMaxPayload);
    KvoMemoryAccessor& writer = *opened;
    Demand(writer.get_is_initialized(), "the writer's role was refused");
    const std::uint64_t epoch = kvo::InspectStreamFile(path).epoch;
    std::mt19937_64 random(static_cast<std::uint64_t>(::getpid()));
    std::vector<unsigned char> payload(kMaxPayload);
    for (unsigned char& byte : payload) {
        byte = static_cast<unsigned char>(random());
    }
    for (std::uint64_t i = 0;; ++i) {
        const std::size_t bytes = sizeof(Head) + 8 + random() % (kMaxPayload - sizeof(Head) - 8);
        payload[sizeof(Head) + random() % 8] = static_cast<unsigned char>(i);
        Head head{0, epoch};
        std::memcpy(payload.data(), &head, sizeof head);
        head.digest = DigestOf(payload.data(), bytes);
        std::memcpy(payload.data(), &head, sizeof head);
        writer.WriteData(-1, 0, static_cast<int>(bytes), payload.data(), static_cast<int>(bytes),
                         nullptr, 0, i);
        Demand(writer.writer_counters().dropped == 0, "the writer found no slot");
        totals.written.fetch_add(1, std::memory_order_relaxed);
        if (i % 16 == 0) {
            std::this_thread::yield();
        }
    }
}

// What is wrong with a sample in itself; null: nothing.
const char* FaultOf(const kvo::DataSample& sample) {
    Head head;
    if (sample.payload_size() < static_cast<int>(sizeof head) ||
        sample.payload_size() != sample.sample_tag()) {
        return "has another size";
    }
    std::memcpy(&head, sample.payload(), sizeof head);
    return head.digest ==
                   DigestOf(sample.payload(), static_cast<std::size_t>(sample.payload_size()))
               ? nullptr
               : "is not whole";
}

class Reader {
public:
    Reader(const std::string& path, Totals& totals)
        : totals_(totals), accessor_(path, kStream, nullptr, 0, 2) {
        accessor_.StartReading();
    }

    void Run() {
        for (;;) {
            accessor_.NewData();  // looks for a successor of a segment that was given up
            while (const kvo::DataSample* const sample = kvo::test::TakeRetained(accessor_)) {
                // The one before is still held: neither may change.
                const char* fault = FaultOf(*sample);
                if (fault == nullptr && held_ != nullptr) {
                    fault = FaultOf(*held_);
                }
                if (fault == nullptr) {
                    fault = FaultOfPlace(*sample);
                }
                Demand(fault == nullptr, "sample " + std::to_string(sample->sequence_number()) +
                                             " " + (fault != nullptr ? fault : ""));
                held_ = sample;
            }
            std::this_thread::yield();
        }
    }

private:
    const char* FaultOfPlace(const kvo::DataSample& sample) {
        Head head;
        std::memcpy(&head, sample.payload(), sizeof head);
        const kvo::ReaderCounters counters = accessor_.reader_counters();
        const std::uint64_t number = sample.sequence_number();
        const std::uint64_t lost = counters.lost - lost_;
        const char* fault = nullptr;
        if (head.epoch == epoch_) {
            fault = number <= number_ ? "comes after a newer one"
                    : number - number_ - 1 != lost
                        ? "follows a gap that the reader statistics do not tell"
                        : nullptr;
        } else {
            fault = head.epoch < epoch_ ? "is of an epoch that was left" : nullptr;
            totals_.epochs.fetch_add(1, std::memory_order_relaxed);
        }
        epoch_ = head.epoch;
        number_ = number;
        lost_ = counters.lost;
        totals_.read.fetch_add(1, std::memory_order_relaxed);
        totals_.lost.fetch_add(lost, std::memory_order_relaxed);
        totals_.copied.fetch_add(counters.copied - copied_, std::memory_order_relaxed);
        copied_ = counters.copied;
        return fault;
    }

    Totals& totals_;
    KvoMemoryAccessor accessor_;
    const kvo::DataSample* held_ = nullptr;
    std::uint64_t epoch_ = 0;
    std::uint64_t number_ = 0;
    std::uint64_t lost_ = 0;
    std::uint64_t copied_ = 0;
};

/// The broker's part: makes the segments and takes back what the dead held.
class Keeper {
public:
    explicit Keeper(const std::string& directory)
        : path_(StreamIn(directory)), lock_(kvo::ProcessLock::ForDirectory(directory)) {
        lock_->Join();
        MakeSegment();
    }
    void MakeSegment() {
        // Some reader entries may pin, the others copy.
        auto file = kvo::test::CreateStream(path_, kStream, kMaxPayload, kRetained,
                                            kvo::test::Spare(64 << 10), ++epoch_);
        if (file_ != nullptr) {
            file_->Retire();
        }
        file_ = std::move(file);
    }
    int Reap() { return file_->ReapDeadReaders(*lock_); }

    /// After the death of all processes: removes everything.
    void End() {
        Reap();
        for (const std::string& fault : kvo::CheckStreamFile(path_)) {
            Demand(false, fault);
        }
        Demand(file_->readers().empty(), "reader entries are left");
        file_->Remove();
        file_.reset();
        lock_->RemoveIfUnused();
    }

private:
    const std::string path_;
    const std::shared_ptr<kvo::ProcessLock> lock_;
    std::uint64_t epoch_ = 0;
    std::unique_ptr<StreamFile> file_;
};

class KillLoop {
public:
    KillLoop(const KillOptions& options, const std::string& directory)
        : options_(options),
          directory_(directory),
          totals_(Share<Totals>(TotalsIn(directory))),
          keeper_(directory),
          random_(options.seed) {
        for (std::size_t i = 0; i <= kReaders; ++i) {
            Start(i);
        }
    }

    void Run() {
        const auto begin = Clock::now();
        auto next_report = begin + std::chrono::seconds(10);
        while (!options_.Over(kills_, begin)) {
            Strike();
            if (Clock::now() >= next_report) {
                Report(begin);
                next_report += std::chrono::seconds(10);
            }
        }
        for (const auto& victim : victims_) {
            victim->Kill();
        }
        Report(begin);
        keeper_.End();
        Demand(totals_.read.load() != 0 && totals_.copied.load() != 0,
               "nothing was read or nothing copied: this test tested nothing");
    }

private:
    void Start(std::size_t target) {
        victims_[target] =
            std::make_unique<Process>(Arguments{target == 0 ? "writer" : "reader", directory_});
    }

    void Strike() {
        // The moments between two strikes are where something can go wrong.
        std::this_thread::sleep_for(std::chrono::microseconds(random_() % 4000));
        const std::size_t target = random_() % victims_.size();
        Process& victim = *victims_[target];
        if (random_() % 4 == 0) {
            victim.Signal(SIGSTOP);
            std::this_thread::sleep_for(std::chrono::microseconds(random_() % 3000));
            if (random_() % 2 == 0) {
                victim.Signal(SIGCONT);
                ++stops_;
                return;
            }
        }
        victim.Kill();
        ++kills_;
        if (target == 0 && random_() % 2 == 0) {
            keeper_.MakeSegment();  // else the next writer takes the segment over
        }
        if (random_() % 2 == 0) {
            reaped_ += static_cast<std::uint64_t>(keeper_.Reap());
        }
        Start(target);
    }

    void Report(Clock::time_point begin) const {
        const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
        std::cout << kills_ << " kills, " << stops_ << " stops, " << reaped_
                  << " reader entries taken back in " << seconds << " s; " << totals_.written.load()
                  << " samples written, " << totals_.read.load() << " read, of these "
                  << totals_.copied.load() << " by copy; " << totals_.lost.load() << " lost, "
                  << totals_.epochs.load() << " changes of epoch" << std::endl;
    }

    const KillOptions options_;
    const std::string directory_;
    Totals& totals_;
    Keeper keeper_;
    std::mt19937_64 random_;
    std::array<std::unique_ptr<Process>, kReaders + 1> victims_;  // the writer first
    std::uint64_t kills_ = 0;
    std::uint64_t stops_ = 0;
    std::uint64_t reaped_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Kills, stops and restarts the writer and the readers of a stream.",
                 "kvo-kill-test");
    KillOptions options{100'000};
    const Roles roles{
        {"writer",
         [](const Arguments& arguments) {
             Write(StreamIn(arguments.at(0)), Share<Totals>(TotalsIn(arguments.at(0))));
         }},
        {"reader", [](const Arguments& arguments) {
             Reader(StreamIn(arguments.at(0)), Share<Totals>(TotalsIn(arguments.at(0)))).Run();
         }}};
    return Run(argc, argv, app, options, roles, [&] {
        const kvo::test::TempDirectory scratch;
        KillLoop(options, scratch.path()).Run();
        std::filesystem::remove(TotalsIn(scratch.path()));
        for (const auto& left : std::filesystem::directory_iterator(scratch.path())) {
            Demand(false, "left behind: " + left.path().string());
        }
    });
}
