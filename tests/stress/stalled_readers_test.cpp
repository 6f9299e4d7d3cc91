// Few retained samples and readers that hold many: half of them are stopped while they do. The
// writer finds a slot for every sample, the others read on, and what is held does not change.
#include "kvo/memory/inspection.h"
#include "processes.h"
#include "sample_stream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

using kvo::KvoMemoryAccessor;
using namespace kvo::stress;

constexpr int kPayload = 512;
constexpr int kReaders = 8;
constexpr const char* kStream = "stalled/readers";
constexpr std::chrono::seconds kDeadline{30};

bool Holds(const kvo::DataSample& sample) {
    const auto expected = static_cast<unsigned char>(sample.sequence_number());
    return sample.payload_size() == kPayload &&
           std::all_of(sample.payload(), sample.payload() + kPayload,
                       [expected](unsigned char byte) { return byte == expected; });
}

// What the readers have read, each its own count, in a file that all share.
using Progress = std::array<std::atomic<std::uint64_t>, kReaders>;
Progress& ProgressIn(const std::string& directory) {
    return Share<Progress>(directory + "/progress");
}

// A reader process; counts what it has read in `progress` and never returns while all is well.
void Read(const std::string& path, int accessor_argument, std::atomic<std::uint64_t>& progress) {
    KvoMemoryAccessor reader(path, kStream, nullptr, 0, accessor_argument);
    reader.StartReading();
    std::deque<const kvo::DataSample*> held;
    for (;;) {
        const kvo::DataSample* const sample = kvo::test::Take(reader);
        if (sample == nullptr) {
            std::this_thread::yield();
            continue;
        }
        held.push_back(sample);
        if (held.size() > static_cast<std::size_t>(std::max(accessor_argument, 1))) {
            held.pop_front();
        }
        if (!std::all_of(held.begin(), held.end(),
                         [](const kvo::DataSample* each) { return Holds(*each); })) {
            return;
        }
        progress.fetch_add(1, std::memory_order_relaxed);  // relaxed: a number to wait for
    }
}

class StalledReaders : public ::testing::TestWithParam<std::tuple<int, int>> {
protected:
    /// Writes until each of the readers [first, last) has read so many more samples.
    void WriteUntilRead(KvoMemoryAccessor& writer, std::size_t first, std::size_t last,
                        std::uint64_t samples) {
        std::array<std::uint64_t, kReaders> goal{};
        for (std::size_t i = first; i < last; ++i) {
            goal[i] = progress_[i].load() + samples;
        }
        const auto deadline = Clock::now() + kDeadline;
        for (std::size_t i = first; i < last;) {
            Demand(Clock::now() < deadline, "reader " + std::to_string(i) + " does not read on");
            const std::vector<unsigned char> payload(
                kPayload, static_cast<unsigned char>(writer.writer_counters().written + 1));
            writer.WriteData(-1, 0, 0, payload.data(), kPayload, nullptr, 0, 1);
            std::this_thread::yield();
            while (i < last && progress_[i].load() >= goal[i]) {
                ++i;
            }
        }
    }

    const kvo::test::TempDirectory scratch_;
    const std::string path_ = scratch_.path() / "stream";
    Progress& progress_ = ProgressIn(scratch_.path());
    std::vector<std::unique_ptr<Process>> readers_;
};

TEST_P(StalledReaders, CostTheWriterAndTheOthersNothing) {
    const auto [retained, accessor_argument] = GetParam();
    const auto file =
        kvo::test::CreateStream(path_, kStream, kPayload, retained, kvo::test::Spare(64 << 10));
    const auto opened = kvo::test::OpenWriter(path_, kStream, kPayload);
    KvoMemoryAccessor& writer = *opened;
    ASSERT_TRUE(writer.get_is_initialized());
    for (int i = 0; i < kReaders; ++i) {
        readers_.push_back(std::make_unique<Process>(
            Arguments{scratch_.path(), std::to_string(accessor_argument), std::to_string(i)}));
    }
    WriteUntilRead(writer, 0, kReaders, 20);
    for (std::size_t i = 0; i < kReaders / 2; ++i) {
        readers_[i]->Signal(SIGSTOP);
    }
    WriteUntilRead(writer, kReaders / 2, kReaders, 500);
    for (std::size_t i = 0; i < kReaders / 2; ++i) {
        readers_[i]->Signal(SIGCONT);
    }
    // A reader whose samples had changed has ended.
    WriteUntilRead(writer, 0, kReaders, 20);
    EXPECT_EQ(0U, writer.writer_counters().dropped);
    EXPECT_EQ(std::vector<std::string>(), kvo::CheckStreamFile(path_));
}

INSTANTIATE_TEST_SUITE_P(RetainedAndHeld, StalledReaders,
                         ::testing::Combine(::testing::Values(1, 2, 4),
                                            ::testing::Values(0, 1, 10, 1000)));

}  // namespace

// DIRECTORY ACCESSOR_ARGUMENT NUMBER: one reader.
int main(int argc, char** argv) {
    if (argc == 4) {
        const std::string directory = argv[1];
        EndWithParent();
        Read(directory + "/stream", std::atoi(argv[2]),
             ProgressIn(directory).at(static_cast<std::size_t>(std::atoi(argv[3]))));
        return 1;
    }
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
