#include "memory_fixture.h"
#include "read/sample_reader.h"
#include "read/sample_store.h"
#include "write/sample_writer.h"

#include <array>
#include <atomic>
#include <cstring>
#include <ostream>
#include <thread>

namespace kvo::test {
namespace {

struct Shape {
    const char* name;
    std::int64_t retained;
    std::uint32_t pins;
    int held;         // samples that a reader holds
    bool few_spares;  // one reader entry may pin
    friend std::ostream& operator<<(std::ostream& out, const Shape& shape) {
        return out << shape.name;
    }
};

// Writer and readers as threads over one mapping, where ThreadSanitizer sees them.
class RaceTest : public MemoryTest, public ::testing::WithParamInterface<Shape> {
protected:
    static constexpr std::uint64_t kSamples = 20'000;
    static constexpr std::size_t kWords = kPayload / sizeof(std::uint64_t);
    using Content = std::array<std::uint64_t, kWords>;

    static Content WordsOf(std::uint64_t number) {
        Content content;
        for (std::size_t i = 0; i < kWords; ++i) {
            content[i] = number * 0x9E3779B97F4A7C15ULL + i;
        }
        return content;
    }
    static bool Whole(const DataSample& sample) {
        const Content expected = WordsOf(sample.sequence_number());
        return sample.payload_size() == kPayload &&
               std::memcmp(sample.payload(), expected.data(), sizeof expected) == 0 &&
               static_cast<std::uint64_t>(sample.sample_tag()) == sample.sequence_number();
    }
    void ReadToTheEnd(const std::shared_ptr<Segment>& segment, int held) const;
};

void RaceTest::ReadToTheEnd(const std::shared_ptr<Segment>& segment, int held) const {
    SampleReader reader(segment);
    ASSERT_EQ(reader.ClaimEntry(directory_), "");
    SampleStore store(held);
    std::vector<DataSample*> kept;
    ReaderCounters counters;
    std::vector<std::uint64_t> damaged;
    std::uint64_t next = 1;
    std::uint64_t gaps = 0;
    std::uint64_t last = 0;
    while (last < kSamples) {
        if (!reader.TakeNext(0, next, counters, store.spare(), damaged)) {
            std::this_thread::yield();
            continue;
        }
        DataSample* sample = store.HandOut();
        const std::uint64_t number = sample->sequence_number();
        ASSERT_GT(number, last);
        gaps += number - last - 1;
        last = number;
        kept.push_back(sample);
        if (kept.size() > static_cast<std::size_t>(held)) {
            kept.erase(kept.begin());
        }
        for (const DataSample* each : kept) {
            ASSERT_TRUE(Whole(*each)) << each->sequence_number() << " while reading " << number;
        }
    }
    EXPECT_EQ(gaps, counters.lost);
    EXPECT_EQ(counters.read + counters.lost, kSamples);
    EXPECT_EQ(counters.checksum_failures, 0U);
}

TEST_P(RaceTest, EverySampleIsWholeAndInOrderAndGapsAreCounted) {
    const Shape& shape = GetParam();
    const auto file = Create(shape.retained, Spare(shape.few_spares ? 0 : 64 << 10, shape.pins));
    const auto segment = Segment::Open(path_, Segment::Access::kWrite);
    SampleWriter writer(segment, ProcessLock::ForDirectory(directory_));
    std::atomic<int> ready{0};
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i) {
        readers.emplace_back([&] {
            ready.fetch_add(1);
            ReadToTheEnd(segment, shape.held);
        });
    }
    while (ready.load() < 3) {
        std::this_thread::yield();
    }
    for (std::uint64_t number = 1; number <= kSamples; ++number) {
        const Content content = WordsOf(number);
        SampleView sample;
        sample.payload = reinterpret_cast<const unsigned char*>(content.data());
        sample.payload_bytes = kPayload;
        sample.sample_tag = static_cast<std::int32_t>(number);
        EXPECT_EQ(writer.Write(sample, number % 2 == 0), SampleWriter::Outcome::kWritten);
        if (number % 16 == 0) {
            std::this_thread::yield();  // a reader that never runs sees no races
        }
    }
    for (std::thread& reader : readers) {
        reader.join();
    }
    EXPECT_TRUE(file->readers().empty());
}

INSTANTIATE_TEST_SUITE_P(Shapes, RaceTest,
                         ::testing::Values(Shape{"OneRetained", 1, 2, 1, false},
                                           Shape{"OneRetainedFewSpares", 1, 1, 1, true},
                                           Shape{"TwoRetainedFewSpares", 2, 2, 3, true},
                                           Shape{"FourRetained", 4, 2, 3, false},
                                           Shape{"ManyRetained", 100, 6, 5, false}),
                         [](const auto& shape) { return shape.param.name; });

// One accessor used by several threads at once, its slots included.
TEST_F(MemoryTest, AccessorOperationsMayRunAtOnce) {
    const auto file = Create(16);
    const auto writer = Writer();
    const auto reader = Reader(3);
    std::atomic<std::uint64_t> seen{0};
    std::atomic<bool> done{false};
    reader->DataAvailableSignal().connect([&] {
        if (Take(*reader) != nullptr) {
            seen.fetch_add(1);
        }
    });
    std::thread notifier([&] {
        while (!done.load()) {
            reader->NewData();
        }
        reader->NewData();
    });
    std::thread restarter([&] {
        while (!done.load()) {
            EXPECT_EQ(reader->OpenSharedMemory(), 1);
            reader->Reset();
            reader->StartReading();
            writer->Reattach();
        }
    });
    Write(*writer, 1, 2000);
    done = true;
    notifier.join();
    restarter.join();
    const ReaderCounters counters = reader->reader_counters();
    EXPECT_EQ(counters.read, seen.load());
    EXPECT_EQ(counters.read + counters.lost, 2000U);
}

}  // namespace
}  // namespace kvo::test
