// What one write and one read cost, beside the least that the machine would ask for the same.
#include "bench_stream.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <benchmark/benchmark.h>
#include <chrono>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

namespace {

using kvo::bench::BenchStream;
using kvo::bench::Sources;

constexpr int kRetained = 64;  // samples, of small ones
constexpr int kRetainedLarge = 8;

int RetainedFor(std::int64_t payload_bytes) {
    return payload_bytes < (1 << 20) ? kRetained : kRetainedLarge;
}

void SetBandwidth(benchmark::State& state) {
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

// Arguments: payload bytes, readers that are attached and hold nothing.
void Write(benchmark::State& state) {
    const int bytes = static_cast<int>(state.range(0));
    const BenchStream stream(bytes, RetainedFor(bytes));
    const auto writer = stream.Writer();
    std::vector<std::unique_ptr<kvo::KvoMemoryAccessor>> readers;
    for (std::int64_t i = 0; i < state.range(1); ++i) {
        readers.push_back(stream.Reader());
    }
    Sources sources(bytes);
    for (int i = 0; i < 4 * stream.slots_in_turn(); ++i) {
        BenchStream::Write(*writer, sources.Next(), bytes);
    }
    for (auto _ : state) {
        BenchStream::Write(*writer, sources.Next(), bytes);
    }
    SetBandwidth(state);
    if (writer->writer_counters().dropped > 0) {
        state.SkipWithError("samples were dropped");
    }
}
BENCHMARK(Write)
    ->ArgNames({"bytes", "readers"})
    ->Args({64, 0})
    ->Args({64, 1})
    ->Args({64, 8})
    ->Args({64, 64})
    ->Args({64, 256})
    ->Args({4096, 1})
    ->Args({1 << 20, 1});

// The same bytes into the slots of such a file, as many of them in turn.
void Memcpy(benchmark::State& state) {
    const auto bytes = static_cast<std::size_t>(state.range(0));
    const BenchStream stream(static_cast<int>(bytes), RetainedFor(state.range(0)));
    const auto slots = stream.MapSlots();
    Sources sources(static_cast<int>(bytes));
    std::size_t slot = 0;
    for (std::size_t i = 0; i < 4 * slots.size(); ++i) {
        std::memcpy(slots[i % slots.size()], sources.Next(), bytes);
    }
    for (auto _ : state) {
        std::memcpy(slots[slot], sources.Next(), bytes);
        benchmark::ClobberMemory();
        slot = slot + 1 == slots.size() ? 0 : slot + 1;
    }
    SetBandwidth(state);
}
BENCHMARK(Memcpy)->ArgName("bytes")->Arg(64)->Arg(4096)->Arg(1 << 20);

// What it costs to ask for the time twice: part of every measured interval.
std::chrono::duration<double> CostOfTiming() {
    auto least = std::chrono::steady_clock::duration::max();
    for (int i = 0; i < 10'000; ++i) {
        const auto begin = std::chrono::steady_clock::now();
        least = std::min(least, std::chrono::steady_clock::now() - begin);
    }
    return least;
}

// Calls `produce` on another thread, then measures `consume` on this one, in turn; both handle
// `samples` samples a time.
template <class Produce, class Consume>
void MeasureConsumer(benchmark::State& state, int samples, Produce produce, Consume consume) {
    std::atomic<int> turn{0};  // 0: producer, 1: consumer, 2: end
    const auto await_consumers_turn = [&turn] {
        while (turn.load(std::memory_order_acquire) != 1) {
        }
    };
    std::thread producer([&] {
        for (int now = 0; now != 2; now = turn.load(std::memory_order_acquire)) {
            if (now == 0) {
                produce();
                turn.store(1, std::memory_order_release);
            }
        }
    });
    const auto cost_of_timing = CostOfTiming();
    for (auto _ : state) {
        await_consumers_turn();
        const auto begin = std::chrono::steady_clock::now();
        consume();
        const auto end = std::chrono::steady_clock::now();
        state.SetIterationTime(
            (std::chrono::duration<double>(end - begin) - cost_of_timing).count());
        turn.store(0, std::memory_order_release);
    }
    await_consumers_turn();
    turn.store(2, std::memory_order_release);
    producer.join();
    state.counters["sample"] =
        benchmark::Counter(samples, benchmark::Counter::kIsIterationInvariantRate |
                                        benchmark::Counter::kInvert);  // seconds
}

// Time of one sample; written by another core, taken without a copy. Arguments: payload bytes,
// samples that are there at a time.
void Read(benchmark::State& state) {
    const int bytes = static_cast<int>(state.range(0));
    const int samples = static_cast<int>(state.range(1));
    const BenchStream stream(bytes, RetainedFor(bytes));
    const auto writer = stream.Writer();
    const auto reader = stream.Reader();
    Sources sources(bytes);
    MeasureConsumer(
        state, samples,
        [&] {
            for (int i = 0; i < samples; ++i) {
                BenchStream::Write(*writer, sources.Next(), bytes);
            }
        },
        [&] {
            for (int i = 0; i < samples; ++i) {
                benchmark::DoNotOptimize(BenchStream::Take(*reader));
            }
        });
    const auto counters = reader->reader_counters();
    if (counters.copied > 0 || counters.lost > 0 || counters.read == 0) {
        state.SkipWithError("samples were copied or lost");
    }
}
BENCHMARK(Read)
    ->ArgNames({"bytes", "samples"})
    ->Args({64, kRetained})
    ->Args({4096, kRetained})
    ->Args({1 << 20, kRetainedLarge})
    ->UseManualTime()
    ->Iterations(3'000);
BENCHMARK(Read)
    ->ArgNames({"bytes", "samples"})
    ->Args({64, 1})
    ->Args({4096, 1})
    ->UseManualTime()
    ->Iterations(100'000);

// The least that a pinned read needs: an acquire load of a word that another core has stored,
// beside the sample's bytes, and an exchange on a word of one's own.
void BareLoadAndExchange(benchmark::State& state) {
    struct alignas(64) Line {
        std::atomic<std::uint64_t> word{0};
        std::array<unsigned char, 56> bytes{};
    };
    const int samples = static_cast<int>(state.range(0));
    std::vector<Line> lines(kRetained);
    auto produced = lines.begin();
    auto consumed = lines.begin();
    const auto next = [&lines](std::vector<Line>::iterator& line) -> Line& {
        Line& now = *line;
        line = ++line == lines.end() ? lines.begin() : line;
        return now;
    };
    alignas(64) std::atomic<std::uint64_t> pin{0};
    std::uint64_t version = 0;
    MeasureConsumer(
        state, samples,
        [&] {
            ++version;
            for (int i = 0; i < samples; ++i) {
                Line& line = next(produced);
                line.bytes.fill(static_cast<unsigned char>(version));
                line.word.store(version, std::memory_order_release);
            }
        },
        [&] {
            for (int i = 0; i < samples; ++i) {
                const std::uint64_t word = next(consumed).word.load(std::memory_order_acquire);
                benchmark::DoNotOptimize(pin.exchange(word));
            }
        });
}
BENCHMARK(BareLoadAndExchange)
    ->ArgName("samples")
    ->Arg(kRetained)
    ->UseManualTime()
    ->Iterations(3'000);
BENCHMARK(BareLoadAndExchange)->ArgName("samples")->Arg(1)->UseManualTime()->Iterations(100'000);

}  // namespace

BENCHMARK_MAIN();
