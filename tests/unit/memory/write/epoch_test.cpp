#include "memory_fixture.h"

namespace kvo::test {
namespace {

// What happens to accessors when segments are retired, replaced, closed and opened again.
using EpochTest = MemoryTest;
using Numbers = std::vector<std::uint64_t>;

TEST_F(EpochTest, ARetiredSegmentTakesNothingAndItsReaderCountsWhatItLeavesUnread) {
    const auto old = Create(4, Spare(), 1);
    auto writer = Writer();
    const auto reader = Reader();
    Write(*writer, 1, 6);
    ASSERT_EQ(Take(*reader)->sequence_number(), 3U);
    old->Retire();
    Write(*writer, 7, 9);
    EXPECT_EQ(writer->writer_counters().written, 6U);
    EXPECT_EQ(writer->writer_counters().discarded, 3U);
    EXPECT_EQ(old->writer_state().discarded, 3U);
    EXPECT_EQ(logger_.Count("discarded"), 1U);
    reader->NewData();
    EXPECT_EQ(reader->reader_counters().superseded, 0U) << "no successor yet";
    const auto successor = Create(4, Spare(), 2);
    writer->Reattach();
    Write(*writer, 1, 2);
    EXPECT_EQ(successor->writer_state().written, 2U);
    reader->NewData();
    EXPECT_EQ(old->readers().size(), 1U)
        << "the sample that was taken still holds its reader entry";
    EXPECT_EQ(TakeAll(*reader), (Numbers{1, 2}));
    EXPECT_TRUE(old->readers().empty());
    EXPECT_EQ(reader->reader_counters().superseded, 3U);
    EXPECT_EQ(reader->reader_counters().lost, 2U);
}

TEST_F(EpochTest, SlotsGetWhatIsUnreadBeforeTheSuccessorsSamples) {
    const auto old = Create(4, Spare(), 1);
    const auto writer = Writer();
    const auto reader = Reader();
    Numbers numbers;
    reader->DataAvailableSignal().connect([&] {
        if (const DataSample* sample = Take(*reader)) {
            numbers.push_back(sample->sequence_number());
        }
    });
    Write(*writer, 1, 3);
    old->Retire();
    const auto successor = Create(4, Spare(), 2);
    writer->Reattach();
    Write(*writer, 1, 2);
    reader->NewData();
    EXPECT_EQ(numbers, (Numbers{1, 2, 3, 1, 2}));
    EXPECT_EQ(reader->reader_counters().superseded, 0U);
}

TEST_F(EpochTest, RegistrationNotificationsLeadToTheSuccessor) {
    auto file = Create(4, Spare(), 1);
    auto writer = Writer();
    const auto reader = Reader();
    Write(*writer, 1, 2);
    const DataSample* held = Take(*reader);
    ASSERT_NE(held, nullptr);
    // PUB_UNREG, SHM_DEL
    reader->set_pub_unreg(true);
    reader->StopReading();
    reader->CloseSharedMemory();
    writer.reset();
    file->Remove();
    EXPECT_EQ(reader->OpenSharedMemory(), -1);
    EXPECT_EQ(Take(*reader), nullptr);
    EXPECT_TRUE(Holds(*held)) << "what was handed out stays";
    file = Create(4, Spare(), 2);
    writer = Writer();
    Write(*writer, 1, 1);
    // PUB_REG
    ASSERT_EQ(reader->OpenSharedMemory(), 1);
    reader->set_pub_unreg(false);
    reader->Reset();
    reader->StartReading();
    EXPECT_TRUE(Holds(*held));
    EXPECT_EQ(TakeAll(*reader), (Numbers{1}));
    EXPECT_EQ(reader->reader_counters().superseded, 1U);
}

TEST_F(EpochTest, SameEpochKeepsThePlaceHoweverOftenItIsOpenedOrCanNotBe) {
    const auto file = Create(8);
    const auto writer = Writer();
    const auto reader = Reader();
    Write(*writer, 1, 6);
    ASSERT_NE(Take(*reader), nullptr);
    EXPECT_EQ(reader->OpenSharedMemory(), 1);
    reader->Reset();
    reader->StartReading();
    EXPECT_EQ(Take(*reader)->sequence_number(), 2U);
    reader->CloseSharedMemory();
    EXPECT_EQ(Take(*reader), nullptr);
    EXPECT_EQ(reader->OpenSharedMemory(), 1);
    reader->Reset();
    EXPECT_EQ(Take(*reader)->sequence_number(), 3U);
    reader->Reattach();
    writer->Reattach();
    Write(*writer, 7, 7);
    file->Remove();
    EXPECT_EQ(reader->OpenSharedMemory(), -1);
    reader->Reattach();
    writer->Reattach();
    Write(*writer, 8, 8);
    EXPECT_EQ(TakeAll(*reader), (Numbers{4, 5, 6, 7, 8}));
    EXPECT_EQ(reader->reader_counters().superseded + reader->reader_counters().lost, 0U);
}

// After SHM_DEL a missed PUB_REG is made up for by either.
TEST_F(EpochTest, ReattachingOrNewDataReopensWhatWasDeleted) {
    auto file = Create(4, Spare(), 1);
    const auto writer = Writer();
    std::uint64_t epoch = 1;
    for (const bool reattach : {true, false}) {
        const auto reader = Reader();
        int signals = 0;
        reader->DataAvailableSignal().connect([&] { ++signals; });
        reader->StopReading();
        reader->CloseSharedMemory();
        reader->NewData();
        EXPECT_EQ(Take(*reader), nullptr) << "the file at the path is the one that was left";
        file = Create(4, Spare(), ++epoch);
        writer->Reattach();
        Write(*writer, 1, 2);
        if (reattach) {
            reader->Reattach();
        }
        reader->NewData();
        EXPECT_EQ(signals, 2) << reattach;
    }
}

}  // namespace
}  // namespace kvo::test
