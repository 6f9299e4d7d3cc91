#include "memory_fixture.h"
#include "sample_reader.h"
#include "sample_writer.h"
#include "slot_content.h"

#include <functional>
#include <limits>

namespace kvo::test {
namespace {

// The rules of slots, pins and the writer's succession, on the shared words themselves.
class ProtocolTest : public MemoryTest {
protected:
    std::shared_ptr<Segment> OpenSegment() const {
        return Segment::Open(path_, Segment::Access::kWrite);
    }
    std::unique_ptr<SampleWriter> WriterOf(const std::shared_ptr<Segment>& segment) const {
        return std::make_unique<SampleWriter>(segment, ProcessLock::ForDirectory(directory_));
    }
    static void WriteOne(SampleWriter& writer, std::uint64_t number) {
        const Bytes bytes = ContentOf(number);
        SampleInput sample;
        sample.payload = bytes.data();
        sample.payload_bytes = kPayload;
        ASSERT_EQ(writer.Write(sample), SampleWriter::Outcome::kWritten);
    }
    static layout::SlotHeader& SlotOf(const Segment& segment, std::uint64_t version) {
        return segment.slot(FindSlot(segment, version).value());
    }
};

TEST_F(ProtocolTest, SamplesOlderThanTheReadersMaximumAreSkippedAndCounted) {
    const auto file = Create(8);
    const auto writer = Writer();
    const auto segment = OpenSegment();
    constexpr unsigned long kHour = 3'600'000;
    const auto early = Reader(1, kHour);
    Write(*writer, 1, 6);
    for (const std::uint64_t version : {1, 2, 4}) {
        SlotOf(*segment, version).monotonic_ns = MonotonicTick() - 2 * kHour * 1'000'000;
    }
    EXPECT_EQ(TakeAll(*early), (std::vector<std::uint64_t>{3, 5, 6}));
    EXPECT_EQ(early->reader_counters().stale, 3U);
    const auto late = Reader(1, kHour);
    EXPECT_EQ(TakeAll(*late), (std::vector<std::uint64_t>{3, 5, 6}));
    EXPECT_EQ(late->reader_counters().stale, 1U) << "it began at 3";
    EXPECT_EQ(TakeAll(*Reader(1, 0)).size(), 6U);
    EXPECT_EQ(TakeAll(*Reader(1, std::numeric_limits<unsigned long>::max())).size(), 6U);
}

TEST_F(ProtocolTest, SuccessorGoesOnFromWhateverPointItsPredecessorDiedAt) {
    struct Case {
        const char* died;
        std::function<void(Segment&)> leave;
        std::uint64_t newest;
    };
    const std::vector<Case> cases{
        {"between two samples", [](Segment&) {}, 20},
        {"while it wrote a sample",
         [](Segment& s) { SlotOf(s, 20).word = layout::PackWord(20, layout::SlotState::kWriting); },
         19},
        {"before the index",
         [](Segment& s) {
             s.index(20) = layout::PackIndex(12, 0);
             s.words().head = 19;
         },
         20},
        {"before the head", [](Segment& s) { s.words().head = 19; }, 20},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.died);
        const auto file = Create(4);
        const auto segment = OpenSegment();
        auto writer = WriterOf(segment);
        for (std::uint64_t n = 1; n <= 20; ++n) {
            WriteOne(*writer, n);
        }
        writer.reset();
        c.leave(*segment);
        const auto held = Reader(2);
        ASSERT_NE(Take(*held), nullptr);
        writer = WriterOf(segment);
        std::uint64_t next = c.newest + 1;
        WriteOne(*writer, next);
        const auto reader = Reader();
        EXPECT_EQ(TakeAll(*reader),
                  (std::vector<std::uint64_t>{next - 3, next - 2, next - 1, next}));
        for (int i = 0; i < 100; ++i) {
            WriteOne(*writer, ++next);
        }
        EXPECT_EQ(TakeAll(*reader).back(), next);
    }
}

TEST_F(ProtocolTest, ForeignPinsTakeNoMoreSlotsThanThereAreForThem) {
    const auto file = Create(1, Spare(0, 6));
    const auto segment = OpenSegment();
    const auto writer = WriterOf(segment);
    ASSERT_EQ(segment->geometry().pinning_rows, 1U);
    ASSERT_LE(segment->geometry().slot_count, 8U);
    segment->control().mark = 0xFFFFFFFF;
    for (std::uint32_t k = 0; k < 6; ++k) {
        segment->row(0).pins[k] = k % 2 == 0 ? k + 1 : 0xFFFFFFFF;
    }
    for (std::uint64_t n = 1; n <= 50; ++n) {
        WriteOne(*writer, n);
    }
    EXPECT_EQ(writer->counters().dropped, 0U) << "rows and pins are bounded by construction";
}

TEST_F(ProtocolTest, HeldSamplesCloseTheirSlotsForLateComers) {
    const auto file = Create(1, Spare(0, 2));
    const auto segment = OpenSegment();
    const auto writer = WriterOf(segment);
    const auto row = ReaderRow::Claim(segment, ProcessLock::ForDirectory(directory_));
    WriteOne(*writer, 1);
    const std::uint32_t slot = FindSlot(*segment, 1).value();
    int pin = ReaderRow::kNoPin;
    ASSERT_EQ(row->Pin(slot, 1, pin), ReaderRow::PinOutcome::kPinned);
    for (std::uint64_t n = 2; n <= 9; ++n) {
        WriteOne(*writer, n);
    }
    EXPECT_EQ(segment->slot(slot).word, layout::PackWord(1, layout::SlotState::kClosed));
    int second = ReaderRow::kNoPin;
    EXPECT_EQ(row->Pin(slot, 1, second), ReaderRow::PinOutcome::kMissed);
    const std::uint32_t newest = FindSlot(*segment, 9).value();
    EXPECT_EQ(row->Pin(newest, 9, second), ReaderRow::PinOutcome::kPinned);
    EXPECT_EQ(row->Pin(newest, 9, second), ReaderRow::PinOutcome::kNoRoom);
    row->Unpin(pin);
    for (std::uint64_t n = 10; n <= 30; ++n) {
        WriteOne(*writer, n);
    }
    EXPECT_NE(layout::WordVersion(segment->slot(slot).word), 1U) << "used again once unpinned";
}

}  // namespace
}  // namespace kvo::test
