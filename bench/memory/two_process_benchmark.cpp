// A writer and a reader in processes of their own, each on a core: how long a sample is on its way
// and how many get through, beside a bare ring of slots that is polled in the same way and beside
// the waking of a blocked process.
#include "bench_stream.h"
#include "report.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <functional>
#include <immintrin.h>
#include <iostream>
#include <linux/futex.h>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace {

using namespace kvo::bench;

constexpr std::uint32_t kSlots = 1024;  // of the ring, and retained by the stream
constexpr std::uint64_t kTold =
    64;  // samples from one telling of the reader's position to the next
constexpr std::size_t kMostBytes = 4096;
constexpr std::size_t kMostLatencies = 200'000;

std::uint64_t Now() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000U +
           static_cast<std::uint64_t>(now.tv_nsec);
}

// What both processes see. Each line has one writer.
struct Shared {
    struct alignas(64) Slot {
        std::atomic<std::uint64_t> sequence;  // writer, release: the rest is complete
        std::uint64_t time_ns;                // where slots are stamped
        std::array<unsigned char, kMostBytes> payload;
    };
    alignas(64) std::atomic<std::uint32_t> futex;     // writer: newest sample, low half
    alignas(64) std::atomic<std::uint64_t> position;  // reader: samples taken, told now and then
    alignas(64) std::atomic<bool> reader_ready;       // reader
    alignas(64) std::atomic<bool> stream_ready;       // writer: `path` is there
    std::array<char, 256> path;
    std::uint64_t nanoseconds;                          // reader, at its end: from first to last
    std::array<std::uint64_t, kMostLatencies> latency;  // reader: nanoseconds of sample i
    std::array<Slot, kSlots> ring;
};

class SharedMemory {
public:
    SharedMemory()
        : shared_(static_cast<Shared*>(::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                                              MAP_SHARED | MAP_ANONYMOUS | MAP_POPULATE, -1, 0))) {
        if (shared_ == MAP_FAILED) {
            throw std::system_error(errno, std::generic_category(), "mapping shared memory");
        }
    }
    SharedMemory(const SharedMemory&) = delete;
    SharedMemory& operator=(const SharedMemory&) = delete;
    ~SharedMemory() { ::munmap(shared_, sizeof(Shared)); }
    Shared& operator*() const { return *shared_; }

private:
    Shared* const shared_;
};

struct Plan {
    int bytes = 64;
    std::uint64_t samples = 0;
    std::uint64_t pause_ns = 0;  // between samples; 0: as fast as the reader follows
};

void PinToCore(int core) {
    cpu_set_t cores;
    CPU_ZERO(&cores);
    CPU_SET(core, &cores);
    ::sched_setaffinity(0, sizeof cores, &cores);  // where it is refused, the kernel places us
}

// Holds the writer back until a sample is due and the reader has left room for it.
class Pace {
public:
    Pace(const Shared& shared, const Plan& plan) : shared_(shared), plan_(plan) {}
    void Await(std::uint64_t sample) {
        if (plan_.pause_ns != 0) {
            while (Now() < begin_ + sample * plan_.pause_ns) {
            }
        }
        while (sample >= position_ + kSlots / 2) {
            position_ = shared_.position.load(std::memory_order_acquire);
        }
    }

private:
    const Shared& shared_;
    const Plan plan_;
    const std::uint64_t begin_ = Now();
    std::uint64_t position_ = 0;  // of the reader, as it was looked at last
};

// The reader's account: latency of this sample, and the time of all at the end.
class Account {
public:
    Account(Shared& shared, const Plan& plan) : shared_(shared), plan_(plan) {}
    bool complete() const { return taken_ == plan_.samples; }
    std::uint64_t taken() const { return taken_; }
    void Add(const unsigned char* payload) {
        const volatile unsigned char last = payload[plan_.bytes - 1];
        static_cast<void>(last);
        std::uint64_t sent = 0;
        std::memcpy(&sent, payload, sizeof sent);
        if (plan_.pause_ns != 0) {
            shared_.latency[taken_] = Now() - sent;
        }
        if (taken_++ == 0) {
            begin_ = Now();
        }
        if (taken_ % kTold == 0 || complete()) {
            shared_.position.store(taken_, std::memory_order_release);
        }
        if (complete()) {
            shared_.nanoseconds = Now() - begin_;
        }
    }

private:
    Shared& shared_;
    const Plan plan_;
    std::uint64_t taken_ = 0;
    std::uint64_t begin_ = 0;
};

// Calls `write` with each sample's payload, whose first bytes say when.
void WriteAll(Shared& shared, const Plan& plan,
              const std::function<void(std::uint64_t, const unsigned char*)>& write) {
    std::vector<std::vector<unsigned char>> sources(
        8, std::vector<unsigned char>(static_cast<std::size_t>(plan.bytes)));
    while (!shared.reader_ready.load(std::memory_order_acquire)) {
    }
    Pace pace(shared, plan);
    for (std::uint64_t i = 0; i < plan.samples; ++i) {
        pace.Await(i);
        auto& source = sources[i % sources.size()];
        if (plan.pause_ns != 0) {
            const std::uint64_t now = Now();
            std::memcpy(source.data(), &now, sizeof now);
        }
        write(i, source.data());
    }
}

void WriteStream(Shared& shared, const Plan& plan) {
    const BenchStream stream(plan.bytes, kSlots);
    const auto writer = stream.Writer();
    stream.path().copy(shared.path.data(), shared.path.size() - 1);
    shared.stream_ready.store(true, std::memory_order_release);
    WriteAll(shared, plan, [&](std::uint64_t, const unsigned char* payload) {
        BenchStream::Write(*writer, payload, plan.bytes);
    });
    while (shared.position.load(std::memory_order_acquire) < plan.samples) {
    }
}

void ReadStream(Shared& shared, const Plan& plan) {
    while (!shared.stream_ready.load(std::memory_order_acquire)) {
    }
    const auto reader = BenchStream::ReaderOf(shared.path.data());
    Account account(shared, plan);
    shared.reader_ready.store(true, std::memory_order_release);
    while (!account.complete()) {
        if (const auto* sample = BenchStream::Take(*reader)) {
            account.Add(sample->payload());
        } else {
            ::_mm_pause();
        }
    }
    const auto counters = reader->reader_counters();
    if (counters.copied > 0 || counters.lost > 0) {
        throw std::runtime_error("samples were copied or lost");
    }
}

template <bool kStamped>
void WriteRing(Shared& shared, const Plan& plan) {
    WriteAll(shared, plan, [&](std::uint64_t i, const unsigned char* payload) {
        auto& slot = shared.ring[i % kSlots];
        if constexpr (kStamped) {
            slot.time_ns = Now();
        }
        std::memcpy(slot.payload.data(), payload, static_cast<std::size_t>(plan.bytes));
        slot.sequence.store(i + 1, std::memory_order_release);
    });
}

void ReadRing(Shared& shared, const Plan& plan) {
    Account account(shared, plan);
    shared.reader_ready.store(true, std::memory_order_release);
    while (!account.complete()) {
        const auto& slot = shared.ring[account.taken() % kSlots];
        if (slot.sequence.load(std::memory_order_acquire) == account.taken() + 1) {
            account.Add(slot.payload.data());
        } else {
            ::_mm_pause();
        }
    }
}

void WriteFutex(Shared& shared, const Plan& plan) {
    WriteAll(shared, plan, [&](std::uint64_t i, const unsigned char* payload) {
        auto& slot = shared.ring[i % kSlots];
        std::memcpy(slot.payload.data(), payload, static_cast<std::size_t>(plan.bytes));
        shared.futex.store(static_cast<std::uint32_t>(i + 1), std::memory_order_release);
        ::syscall(SYS_futex, &shared.futex, FUTEX_WAKE, 1, nullptr, nullptr, 0);
    });
}

void ReadFutex(Shared& shared, const Plan& plan) {
    Account account(shared, plan);
    shared.reader_ready.store(true, std::memory_order_release);
    while (!account.complete()) {
        const auto taken = static_cast<std::uint32_t>(account.taken());
        while (shared.futex.load(std::memory_order_acquire) == taken) {
            ::syscall(SYS_futex, &shared.futex, FUTEX_WAIT, taken, nullptr, nullptr, 0);
        }
        account.Add(shared.ring[account.taken() % kSlots].payload.data());
    }
}

using Part = void (*)(Shared&, const Plan&);

pid_t Start(Part part, Shared& shared, const Plan& plan, int core) {
    const pid_t child = ::fork();
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        PinToCore(core);
        try {
            part(shared, plan);
            std::_Exit(0);
        } catch (const std::exception& error) {
            std::cerr << error.what() << std::endl;
            std::_Exit(1);
        }
    }
    return child;
}

void Await(pid_t child) {
    int status = 0;
    if (::waitpid(child, &status, 0) != child || status != 0) {
        throw std::runtime_error("a measured process failed");
    }
}

struct System {
    const char* name;
    const char* mode;
    Part write;
    Part read;
    bool for_rate;
};
constexpr std::array kSystems{
    System{"stream file", "polled", WriteStream, ReadStream, true},
    System{"bare ring", "polled", WriteRing<false>, ReadRing, true},
    System{"bare ring, stamped", "polled", WriteRing<true>, ReadRing, true},
    System{"futex", "blocked", WriteFutex, ReadFutex, false},
};

// Runs both processes; the result is in the shared memory.
void Run(const System& system, const Plan& plan, const SharedMemory& memory) {
    const pid_t reader = Start(system.read, *memory, plan, 1);
    const pid_t writer = Start(system.write, *memory, plan, 0);
    Await(writer);
    Await(reader);
}

void MeasureLatency(const System& system, int bytes, std::uint64_t samples, Report& report) {
    const SharedMemory memory;
    Run(system, {bytes, samples, 20'000}, memory);
    auto& latency = (*memory).latency;
    std::sort(latency.begin(), latency.begin() + static_cast<std::ptrdiff_t>(samples));
    const std::array<std::pair<const char*, double>, 2> wanted{{{"p50", 0.5}, {"p99", 0.99}}};
    for (const auto& [name, part] : wanted) {
        const auto index = static_cast<std::size_t>(static_cast<double>(samples - 1) * part);
        report.Add({system.name, system.mode, bytes, std::string("latency ") + name, "us"},
                   static_cast<double>(latency[index]) / 1e3);
    }
}

void MeasureRate(const System& system, int bytes, std::uint64_t samples, Report& report) {
    const SharedMemory memory;
    Run(system, {bytes, samples, 0}, memory);
    report.Add({system.name, system.mode, bytes, "rate", "million/s"},
               static_cast<double>(samples) * 1e3 / static_cast<double>((*memory).nanoseconds));
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Moves samples between two processes and tells time and rate of it.");
    int runs = 5;
    bool quick = false;
    std::string json;
    app.add_option("--runs", runs, "times that everything is measured, in turn")
        ->check(CLI::Range(1, 1000))
        ->capture_default_str();
    app.add_flag("--quick", quick, "a tenth of the samples");
    app.add_option("--json", json, "also write the figures to this file");
    CLI11_PARSE(app, argc, argv);
    try {
        Report report;
        for (int run = 0; run < runs; ++run) {
            for (const int bytes : {64, 4096}) {
                for (const System& system : kSystems) {
                    MeasureLatency(system, bytes, quick ? 10'000 : 100'000, report);
                    if (system.for_rate) {
                        MeasureRate(system, bytes, quick ? 500'000 : 5'000'000, report);
                    }
                }
            }
        }
        report.Print();
        if (!json.empty()) {
            report.WriteJson(json);
        }
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "kvo-two-process-benchmark: " << error.what() << std::endl;
        return 1;
    }
}
