// A reader that follows a writer from slot to slot, as promised, finds what comes elsewhere too.
#include "layout/segment.h"
#include "layout/slot_content.h"
#include "memory_fixture.h"

namespace kvo::test {
namespace {

using FollowingTest = MemoryTest;

TEST_F(FollowingTest, WhatTheNextWriterPutsElsewhereIsFound) {
    const auto file = Create(4);
    const auto reader = Reader();
    std::uint64_t newest = 0;
    for (std::uint64_t written = 1; written <= 40; ++written) {
        const auto writer = Writer();
        for (const std::uint64_t last = newest + written; newest < last; ++newest) {
            Write(*writer, newest + 1, newest + 1);
            ASSERT_EQ(TakeAll(*reader), std::vector<std::uint64_t>{newest + 1}) << written;
        }
    }
}

TEST_F(FollowingTest, ASampleThatARefillIsClosingDoesNotHideTheNewerOnes) {
    const auto file = Create(2);
    const auto writer = Writer();
    const auto reader = Reader();
    Write(*writer, 1, 1);
    ASSERT_NE(Take(*reader), nullptr);
    Write(*writer, 2, 4);
    // The writer stops between the closing of the second sample and the round.
    const auto segment = Segment::Open(path_, Segment::Access::kWrite);
    segment->slot(FindSlot(*segment, 2).value()).word =
        layout::PackWord(2, layout::SlotState::kClosed);
    EXPECT_EQ(TakeAll(*reader), (std::vector<std::uint64_t>{3, 4}));
    EXPECT_EQ(reader->reader_counters().lost, 1U);
}

}  // namespace
}  // namespace kvo::test
