#include "memory_fixture.h"
#include "segment.h"
#include "slot_content.h"

#include <limits>

namespace kvo::test {
namespace {

TEST_F(MemoryTest, SamplesOlderThanTheReadersMaximumAreSkippedAndCounted) {
    const auto file = Create(8);
    const auto writer = Writer();
    const auto segment = Segment::Open(path_, Segment::Access::kWrite);
    constexpr unsigned long kHour = 3'600'000;
    const auto early = Reader(1, kHour);
    Write(*writer, 1, 6);
    for (const std::uint64_t version : {1, 2, 4}) {
        segment->slot(FindSlot(*segment, version).value()).monotonic_ns =
            MonotonicTick() - 2 * kHour * 1'000'000;
    }
    EXPECT_EQ(TakeAll(*early), (std::vector<std::uint64_t>{3, 5, 6}));
    EXPECT_EQ(early->reader_counters().stale, 3U);
    const auto late = Reader(1, kHour);
    EXPECT_EQ(TakeAll(*late), (std::vector<std::uint64_t>{3, 5, 6}));
    EXPECT_EQ(late->reader_counters().stale, 1U) << "it began at 3";
    EXPECT_EQ(TakeAll(*Reader(1, 0)).size(), 6U);
    EXPECT_EQ(TakeAll(*Reader(1, std::numeric_limits<unsigned long>::max())).size(), 6U);
}

}  // namespace
}  // namespace kvo::test
