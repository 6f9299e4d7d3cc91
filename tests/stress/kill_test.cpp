// Writer and readers of one stream, killed, stopped and restarted at random moments. Every sample
// that a reader gets must be whole and in its place, and every gap accounted for.
#include "kvo/memory/inspection.h"
#include "kvo/memory/memory_accessor.h"
#include "kvo/memory/stream_file.h"

#include <CLI/CLI.hpp>
#include <xxhash.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <iostream>
#include <memory>
#include <random>
#include <spawn.h>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using kvo::KvoMemoryAccessor;
using kvo::StreamFile;
using Clock = std::chrono::steady_clock;

constexpr int kReaders = 8;
constexpr int kMaxPayload = 2048;
constexpr int kRetained = 8;
constexpr const char* kStream = "kill/test";

// What the processes tell of themselves, in memory that outlives them. relaxed: only sums.
struct Totals {
    std::atomic<std::uint64_t> written;
    std::atomic<std::uint64_t> read;
    std::atomic<std::uint64_t> copied;
    std::atomic<std::uint64_t> lost;
    std::atomic<std::uint64_t> epochs;  // that readers went over to
};

Totals& MapTotals(const std::string& directory) {
    const std::string path = directory + "/totals";
    const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0 || ::ftruncate(file, sizeof(Totals)) != 0) {
        throw std::runtime_error("cannot make " + path);
    }
    void* const begin =
        ::mmap(nullptr, sizeof(Totals), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    ::close(file);
    if (begin == MAP_FAILED) {
        throw std::runtime_error("cannot map " + path);
    }
    return *static_cast<Totals*>(begin);
}

// A payload: its digest, the epoch that it was written for, and bytes.
struct Head {
    std::uint64_t digest;  // of everything behind it
    std::uint64_t epoch;
};

std::uint64_t DigestOf(const unsigned char* payload, std::size_t bytes) {
    return XXH3_64bits(payload + sizeof(std::uint64_t), bytes - sizeof(std::uint64_t));
}

int Write(const std::string& path, Totals& totals) {
    KvoMemoryAccessor writer(path, kStream, nullptr, 0, 1);
    writer.SetSizeConstraints(kMaxPayload, kvo::kMaxMetadataBytes);
    if (!writer.get_is_initialized()) {
        std::cerr << "the writer's role was refused\n";
        return 1;
    }
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
        const kvo::WriterCounters counters = writer.writer_counters();
        if (counters.dropped != 0) {
            std::cerr << "the writer found no slot\n";
            return 1;
        }
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

    int Run() {
        for (;;) {
            accessor_.NewData();  // looks for a successor of a segment that was given up
            while (const kvo::DataSample* const sample = Take()) {
                // The one before is still held: neither may change.
                const char* fault = FaultOf(*sample);
                if (fault == nullptr && held_ != nullptr) {
                    fault = FaultOf(*held_);
                }
                if (fault == nullptr) {
                    fault = FaultOfPlace(*sample);
                }
                if (fault != nullptr) {
                    std::cerr << "sample " << sample->sequence_number() << ' ' << fault << '\n';
                    return 1;
                }
                held_ = sample;
            }
            std::this_thread::yield();
        }
    }

private:
    const kvo::DataSample* Take() {
        std::string stream;
        unsigned int samples = 1;
        int tag = 0;
        long sequence = 0;
        unsigned long timestamp = 0;
        kvo::DataSample* sample = nullptr;
        accessor_.get_data_packet(&stream, &samples, &tag, &sequence, &timestamp, &sample);
        return sample;
    }

    const char* FaultOfPlace(const kvo::DataSample& sample) {
        Head head;
        std::memcpy(&head, sample.payload(), sizeof head);
        const kvo::ReaderCounters counters = accessor_.reader_counters();
        const std::uint64_t number = sample.sequence_number();
        const std::uint64_t lost = counters.lost - lost_;
        const char* fault = nullptr;
        if (head.epoch == epoch_) {
            fault = number <= number_              ? "comes after a newer one"
                    : number - number_ - 1 != lost ? "follows a gap that the ledger does not tell"
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

/// One process of the test, started again whenever it has been killed.
class Victim {
public:
    Victim(std::string role, std::string directory)
        : role_(std::move(role)), directory_(std::move(directory)) {}

    void Start() {
        std::array<std::string, 4> texts{"/proc/self/exe", "--role", role_, directory_};
        std::array<char*, 5> argv{texts[0].data(), texts[1].data(), texts[2].data(),
                                  texts[3].data(), nullptr};
        const int error =
            ::posix_spawn(&pid_, "/proc/self/exe", nullptr, nullptr, argv.data(), environ);
        if (error != 0) {
            throw std::runtime_error(std::string("cannot start a process: ") +
                                     std::strerror(error));
        }
    }
    void Signal(int number) const { ::kill(pid_, number); }

    /// Kills it and waits for its end. Throws when it had ended by itself.
    void Kill() {
        Signal(SIGKILL);
        int status = 0;
        while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL) {
            throw std::runtime_error("a " + role_ + " ended by itself, with status " +
                                     std::to_string(status));
        }
    }

private:
    const std::string role_;
    const std::string directory_;
    pid_t pid_ = -1;
};

/// The broker's part: makes the segments and takes back what the dead held.
class Keeper {
public:
    explicit Keeper(std::string directory)
        : path_(directory + "/stream"), lock_(kvo::ProcessLock::ForDirectory(directory)) {
        lock_->Join();
        MakeSegment();
    }
    void MakeSegment() {
        StreamFile::Creation creation;
        creation.path = path_;
        creation.stream = kStream;
        kvo::SpareSlots spare;
        spare.budget_bytes = 64 << 10;  // some rows may pin, the others copy
        creation.geometry = kvo::PlanGeometry(kMaxPayload, kRetained, spare);
        creation.epoch = ++epoch_;
        auto file = StreamFile::Create(creation);
        if (file_ != nullptr) {
            file_->Retire();
        }
        file_ = std::move(file);
    }
    int Reap() { return file_->ReapDeadReaders(*lock_); }

    /// What is wrong when everybody is dead; removes all.
    std::string End() {
        Reap();
        std::string faults;
        for (const std::string& fault : kvo::CheckStreamFile(path_)) {
            faults += fault + "; ";
        }
        if (!file_->readers().empty()) {
            faults += "rows are left";
        }
        file_->Remove();
        file_.reset();
        lock_->RemoveIfUnused();
        return faults;
    }
    const std::string& path() const { return path_; }

private:
    const std::string path_;
    const std::shared_ptr<kvo::ProcessLock> lock_;
    std::uint64_t epoch_ = 0;
    std::unique_ptr<StreamFile> file_;
};

struct Options {
    std::uint64_t kills = 100'000;
    double seconds = 0;  // 0: no limit
    std::uint64_t seed = 0;
};

class KillLoop {
public:
    KillLoop(const Options& options, const std::string& directory)
        : options_(options),
          totals_(MapTotals(directory)),
          keeper_(directory),
          random_(options.seed) {
        victims_.emplace_back("writer", directory);
        for (int i = 0; i < kReaders; ++i) {
            victims_.emplace_back("reader", directory);
        }
    }

    /// @return what went wrong; empty: nothing.
    std::string Run() {
        for (Victim& victim : victims_) {
            victim.Start();
        }
        const auto begin = Clock::now();
        auto next_report = begin + std::chrono::seconds(10);
        while (kills_ < options_.kills &&
               (options_.seconds == 0 || Clock::now() - begin < Limit())) {
            Strike();
            if (Clock::now() >= next_report) {
                Report(begin);
                next_report += std::chrono::seconds(10);
            }
        }
        for (Victim& victim : victims_) {
            victim.Signal(SIGCONT);
            victim.Kill();
        }
        Report(begin);
        std::string faults = keeper_.End();
        if (totals_.read.load() == 0 || totals_.copied.load() == 0) {
            faults += "nothing was read or nothing copied: this test tested nothing";
        }
        return faults;
    }

private:
    std::chrono::duration<double> Limit() const {
        return std::chrono::duration<double>(options_.seconds);
    }

    void Strike() {
        // The moments between two strikes are where something can go wrong.
        std::this_thread::sleep_for(std::chrono::microseconds(random_() % 4000));
        const std::size_t target = random_() % victims_.size();
        Victim& victim = victims_[target];
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
        victim.Start();
    }

    void Report(Clock::time_point begin) const {
        const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
        std::cout << kills_ << " kills, " << stops_ << " stops, " << reaped_
                  << " rows taken back in " << seconds << " s; " << totals_.written.load()
                  << " samples written, " << totals_.read.load() << " read, of these "
                  << totals_.copied.load() << " by copy; " << totals_.lost.load() << " lost, "
                  << totals_.epochs.load() << " changes of epoch" << std::endl;
    }

    const Options options_;
    Totals& totals_;
    Keeper keeper_;
    std::mt19937_64 random_;
    std::vector<Victim> victims_;  // the writer first
    std::uint64_t kills_ = 0;
    std::uint64_t stops_ = 0;
    std::uint64_t reaped_ = 0;
};

int Drive(const Options& options) {
    std::string directory = "/dev/shm/kvo-kill-XXXXXX";
    if (::mkdtemp(directory.data()) == nullptr) {
        throw std::runtime_error("cannot make a directory in /dev/shm");
    }
    std::string faults;
    try {
        faults = KillLoop(options, directory).Run();
    } catch (const std::exception& error) {
        faults = error.what();
    }
    std::filesystem::remove(directory + "/totals");
    for (const auto& left : std::filesystem::directory_iterator(directory)) {
        if (faults.empty()) {
            faults = "left behind: " + left.path().string();
        }
    }
    std::filesystem::remove_all(directory);
    if (!faults.empty()) {
        std::cerr << "kill test (seed " << options.seed << "): " << faults << '\n';
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Kills, stops and restarts the writer and the readers of a stream.");
    Options options;
    options.seed = std::random_device()();
    std::string role;
    std::string directory;
    app.add_option("--kills", options.kills, "End after so many")->capture_default_str();
    app.add_option("--seconds", options.seconds, "End after so much time; 0: no limit")
        ->capture_default_str();
    app.add_option("--seed", options.seed, "Of the random choices; default: a new one");
    app.add_option("--role", role, "What a process of the test is")->group("");
    app.add_option("DIRECTORY", directory, "of the stream, for a role")->group("");
    CLI11_PARSE(app, argc, argv);
    try {
        if (role.empty()) {
            return Drive(options);
        }
        Totals& totals = MapTotals(directory);
        const std::string path = directory + "/stream";
        return role == "writer" ? Write(path, totals) : Reader(path, totals).Run();
    } catch (const std::exception& error) {
        std::cerr << "kill test: " << error.what() << '\n';
        return 1;
    }
}
