#include "kvo/memory/inspection.h"

#include "layout/segment.h"
#include "layout/slot_content.h"
#include "memory_fixture.h"

#include <functional>
#include <limits>

namespace kvo::test {
namespace {

using layout::PackWord;
using layout::SlotState;

using InspectionTest = MemoryTest;

TEST_F(InspectionTest, TheReportShowsWriterReadersPinsAndLag) {
    const auto file = Create(4, Spare(), 17, true);
    const auto writer = Writer();
    const auto reader = Reader();
    Write(*writer, 1, 3);
    ASSERT_NE(Take(*reader), nullptr);
    const FileReport report = InspectStreamFile(path_);
    EXPECT_EQ(report.stream, kStream);
    EXPECT_EQ(report.epoch, 17U);
    EXPECT_TRUE(report.checksums);
    EXPECT_EQ(report.writer.newest_sequence, 3U);
    EXPECT_EQ(report.writer_process.process_id, static_cast<std::uint32_t>(::getpid()));
    ASSERT_EQ(report.readers.size(), 1U);
    EXPECT_EQ(report.readers[0].lag, 2U);
    EXPECT_EQ(report.readers[0].pinned, std::vector<std::uint64_t>{1});
    EXPECT_EQ(CheckStreamFile(path_), std::vector<std::string>());
}

TEST_F(InspectionTest, EveryBrokenRuleIsNamed) {
    const struct {
        std::function<void(Segment&)> damage;
        const char* named;
    } cases[] = {
        {[](Segment& s) { s.words().state = 9; }, "the state is 9"},
        {[](Segment& s) { s.words().head = 30; }, "the newest is number 30"},
        {[](Segment& s) { s.control().used_entries = 300; },
         "300 reader entries are marked as used"},
        {[](Segment& s) { s.index(19) = 0; }, "sample 19 of the newest 4 cannot be read"},
        {[](Segment& s) { s.slot(FindSlot(s, 18).value()).word = PackWord(17, SlotState::kValid); },
         "both hold sample 17"},
        {[](Segment& s) { s.slot(FindSlot(s, 20).value()).payload_bytes = kPayload + 1; },
         "sizes that do not fit"},
        {[](Segment& s) { s.payload(FindSlot(s, 20).value())[3] ^= 1; }, "another checksum"},
        {[](Segment& s) { s.reader_entry(3).pins[0] = 1; },
         "reader entry 3 has a pin and no owner"},
        {[](Segment& s) { s.reader_entry(0).pins[1] = 100'000; }, "pins slot 99999"},
        {[](Segment& s) { s.reader_entry(0).pins[5] = 1; }, "where none may be"},
        {[](Segment& s) {
             s.reader_entry(0).pins[0] = 1;
             s.control().used_entries = 0;
         },
         "above the used ones"},
        {[](Segment& s) {
             for (std::uint32_t slot = 0; slot < s.geometry().slot_count; ++slot) {
                 s.slot(slot).word = PackWord(slot % 20 + 1, SlotState::kValid);
             }
         },
         "slots take pins"},
    };
    for (const auto& broken : cases) {
        const auto file = Create(4, Spare(), 1, true);
        const auto writer = Writer();
        const auto reader = Reader();
        Write(*writer, 1, 20);
        ASSERT_EQ(CheckStreamFile(path_), std::vector<std::string>());
        broken.damage(*Segment::Open(path_, Segment::Access::kWrite));
        const auto faults = CheckStreamFile(path_);
        EXPECT_TRUE(std::any_of(faults.begin(), faults.end(),
                                [&](const std::string& fault) {
                                    return fault.find(broken.named) != std::string::npos;
                                }))
            << broken.named << " is not in " << ::testing::PrintToString(faults);
    }
}

// With a look into the file as well, since nothing else makes a sample old.
TEST_F(InspectionTest, SamplesOlderThanTheReadersMaximumAreSkippedAndCounted) {
    const auto file = Create(8);
    const auto writer = Writer();
    const auto segment = Segment::Open(path_, Segment::Access::kWrite);
    constexpr unsigned long kSecond = 1000;
    const auto early = Reader(1, kSecond);
    Write(*writer, 1, 6);
    for (std::uint64_t version = 1; version <= 6; ++version) {
        const bool old = version == 1 || version == 2 || version == 4;
        // Of the host's start, or so late that this test may take its time. A host may be young.
        segment->slot(FindSlot(*segment, version).value()).monotonic_ns =
            old ? 0 : std::numeric_limits<std::int64_t>::max();
    }
    EXPECT_EQ(TakeAll(*early), (std::vector<std::uint64_t>{3, 5, 6}));
    EXPECT_EQ(early->reader_counters().expired, 3U);
    const auto late = Reader(1, kSecond);
    EXPECT_EQ(TakeAll(*late), (std::vector<std::uint64_t>{3, 5, 6}));
    EXPECT_EQ(late->reader_counters().expired, 1U) << "it began at 3";
    EXPECT_EQ(TakeAll(*Reader(1, 0)).size(), 6U);
    EXPECT_EQ(TakeAll(*Reader(1, std::numeric_limits<unsigned long>::max())).size(), 6U);
}

}  // namespace
}  // namespace kvo::test
