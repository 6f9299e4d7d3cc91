#include "memory_fixture.h"
#include "peer_process.h"

#include <limits>
#include <stdexcept>

namespace kvo::test {
namespace {

using AccessorTest = MemoryTest;

TEST_F(AccessorTest, SampleArrivesWithAllItsParts) {
    const auto file = Create(4);
    const auto writer = Writer();
    const auto reader = Reader();
    const Bytes payload{1, 2, 3};
    const Bytes metadata{7, 8};
    writer->WriteData(-1, 11, 12, payload.data(), 3, metadata.data(), 2, 1234567890123UL);
    writer->set_compute_checksum(true);
    writer->WriteData(-1, 11, 13, nullptr, 0, metadata.data(), 2, 5);
    std::string stream;
    unsigned int samples = 1;
    int tag = 0;
    long sequence = 0;
    unsigned long timestamp = 0;
    DataSample* sample = nullptr;
    reader->get_data_packet(&stream, &samples, &tag, &sequence, &timestamp, &sample);
    ASSERT_NE(sample, nullptr);
    EXPECT_EQ(stream, kStream);
    EXPECT_EQ(samples, 1U) << "one is left";
    EXPECT_EQ(tag, 12);
    EXPECT_EQ(sequence, 1);
    EXPECT_EQ(timestamp, 1234567890123UL);
    EXPECT_EQ(Bytes(sample->payload(), sample->payload() + sample->payload_size()), payload);
    EXPECT_EQ(Bytes(sample->metadata(), sample->metadata() + sample->metadata_size()), metadata);
    EXPECT_EQ(sample->topic_id(), 11);
    EXPECT_EQ(sample->timestamp_ms(), 1234567890123UL);
    EXPECT_EQ(sample->checksum_state(), ChecksumState::kNone);
    sample = Take(*reader);
    ASSERT_NE(sample, nullptr);
    EXPECT_EQ(sample->payload_size(), 0);
    EXPECT_EQ(sample->metadata_size(), 2);
    EXPECT_EQ(sample->checksum_state(), ChecksumState::kVerified);
    reader->get_data_packet(&stream, &samples, &tag, &sequence, &timestamp, &sample);
    EXPECT_EQ(sample, nullptr);
    EXPECT_EQ(samples, 0U);
    EXPECT_EQ(sequence, -1);
    EXPECT_EQ(timestamp, 0U);
}

TEST_F(AccessorTest, WrongArgumentsAreRefusedBeforeAnythingIsWritten) {
    const auto file = Create(4);
    const auto writer = Writer();
    const Bytes bytes(kPayload + 1600);
    struct Case {
        int slot_index, payload, metadata;
    };
    for (const Case& c :
         {Case{-1, -1, 0}, Case{-1, kPayload + 1, 0}, Case{-1, 0, 1501}, Case{-1, 0, -1},
          Case{0, 1, 0},
          Case{-1, std::numeric_limits<int>::max(), std::numeric_limits<int>::max()}}) {
        EXPECT_THROW(writer->WriteData(c.slot_index, 0, 0, bytes.data(), c.payload, bytes.data(),
                                       c.metadata, 0),
                     std::invalid_argument)
            << c.slot_index << ' ' << c.payload << ' ' << c.metadata;
    }
    EXPECT_THROW(writer->WriteData(-1, 0, 0, nullptr, 1, nullptr, 0, 0), std::invalid_argument);
    EXPECT_EQ(writer->writer_counters().written, 0U);
    writer->WriteData(-1, 0, 0, bytes.data(), kPayload, bytes.data(), 1500, 0);
    EXPECT_EQ(writer->writer_counters().written, 1U);
    EXPECT_THROW(Reader()->WriteData(-1, 0, 0, bytes.data(), 1, nullptr, 0, 0), std::logic_error);
}

TEST_F(AccessorTest, OneWriterOfTheRightShape) {
    const auto file = Create(4);
    auto wrong = Accessor();
    EXPECT_TRUE(wrong->get_is_initialized());
    wrong->SetSizeConstraints(kPayload + 1, 1500);
    EXPECT_FALSE(wrong->get_is_initialized());
    EXPECT_EQ(logger_.Count(std::to_string(kPayload + 1)), 1U);
    auto first = Writer();
    EXPECT_TRUE(first->get_is_initialized());
    EXPECT_FALSE(Writer()->get_is_initialized()) << "there is a living writer";
    EXPECT_EQ(logger_.Count("has a writer"), 1U);
    Write(*first, 1, 6);
    first.reset();
    const auto second = Writer();
    ASSERT_TRUE(second->get_is_initialized());
    Write(*second, 7, 8);
    EXPECT_EQ(TakeAll(*Reader()), (std::vector<std::uint64_t>{5, 6, 7, 8}));
    EXPECT_EQ(second->writer_counters().written, 8U);
}

TEST_F(AccessorTest, FailureToOpenIsLoggedWithItsReason) {
    EXPECT_FALSE(Accessor()->get_is_initialized());
    EXPECT_EQ(logger_.Count("opening " + path_), 1U);
    const auto file = Create(1);
    KvoMemoryAccessor other(path_, "cam/right", &logger_, 0, 1);
    EXPECT_FALSE(other.get_is_initialized());
    EXPECT_EQ(logger_.Count("cam/right"), 1U);
}

TEST_F(AccessorTest, TwoPinsAreEnoughToHoldOneSampleAndWhoHasNoneCopies) {
    const auto file = Create(2, Spare(0, 2));  // one reader entry may pin
    const auto writer = Writer();
    const auto pinning = Reader();
    const auto copying = Reader();
    ASSERT_EQ(file->geometry().pinning_entries, 1U);
    const DataSample* held[2] = {};
    for (std::uint64_t number = 1; number <= 60; ++number) {
        Write(*writer, number, number);
        for (const DataSample* sample : held) {
            EXPECT_TRUE(sample == nullptr || Holds(*sample)) << "before " << number;
        }
        held[0] = Take(*pinning);
        held[1] = Take(*copying);
        ASSERT_TRUE(held[0] != nullptr && held[1] != nullptr);
    }
    EXPECT_EQ(writer->writer_counters().dropped, 0U);
    EXPECT_EQ(pinning->reader_counters().copied, 0U);
    EXPECT_EQ(copying->reader_counters().copied, 60U);
}

TEST_F(AccessorTest, OverwrittenSamplesAreCountedAsLost) {
    const auto file = Create(4);
    const auto writer = Writer();
    const auto reader = Reader();
    Write(*writer, 1, 10);
    EXPECT_EQ(TakeAll(*reader), (std::vector<std::uint64_t>{7, 8, 9, 10}));
    EXPECT_EQ(reader->reader_counters().lost, 6U);
    const auto late = Reader();
    EXPECT_EQ(TakeAll(*late).size(), 4U) << "begins with the oldest retained";
    EXPECT_EQ(late->reader_counters().lost, 0U);
}

TEST_F(AccessorTest, ReadersBeyondTheTableGetCopies) {
    const auto file = Create(2);
    const auto writer = Writer();
    std::vector<std::unique_ptr<KvoMemoryAccessor>> readers;
    for (std::uint32_t i = 0; i <= kReaderEntries; ++i) {
        readers.push_back(Reader());
    }
    EXPECT_EQ(logger_.Count("all 256 reader entries are taken"), 1U);
    EXPECT_EQ(file->readers().size(), kReaderEntries);
    Write(*writer, 1, 3);
    for (const auto& reader : readers) {
        EXPECT_EQ(TakeAll(*reader), (std::vector<std::uint64_t>{2, 3}));
    }
    EXPECT_EQ(readers.front()->reader_counters().copied, 0U);
    EXPECT_EQ(readers.back()->reader_counters().copied, 2U);
}

TEST_F(AccessorTest, SignalsOncePerUnreadSampleAndForgetsNoneWithoutSlots) {
    const auto file = Create(8);
    const auto writer = Writer();
    const auto reader = Reader();
    Write(*writer, 1, 3);
    reader->NewData();
    std::vector<std::uint64_t> numbers;
    int thrown = 0;
    reader->DataAvailableSignal().connect([&] {
        ++thrown;
        throw std::runtime_error("from a slot");
    });
    reader->DataAvailableSignal().connect([&] {
        if (const DataSample* sample = Take(*reader)) {
            numbers.push_back(sample->sequence_number());
        }
    });
    EXPECT_TRUE(numbers.empty()) << "connecting raises nothing";
    reader->NewData();
    EXPECT_EQ(numbers, (std::vector<std::uint64_t>{1, 2, 3}));
    reader->NewData();
    EXPECT_EQ(thrown, 3);
    EXPECT_EQ(logger_.Count("from a slot"), 3U);
    reader->StopReading();
    Write(*writer, 4, 5);
    reader->NewData();
    EXPECT_EQ(numbers.size(), 3U);
    ASSERT_NE(Take(*reader), nullptr) << "stopping ends signals only";
    reader->StartReading();
    reader->NewData();
    EXPECT_EQ(numbers, (std::vector<std::uint64_t>{1, 2, 3, 5}));
}

TEST_F(AccessorTest, ChangedBytesAreNeverReturned) {
    for (const bool by_stream : {false, true}) {
        const auto file = Create(4, Spare(), by_stream ? 2 : 1, by_stream);
        const auto writer = Writer();
        writer->set_compute_checksum(!by_stream);
        const auto reader = Reader();
        const Bytes marker(64, 0xA5);
        writer->WriteData(-1, 0, 0, marker.data(), 64, nullptr, 0, 0);
        std::FILE* raw = std::fopen(path_.c_str(), "r+b");
        ASSERT_NE(raw, nullptr);
        Bytes content(file->geometry().file_bytes);
        ASSERT_EQ(std::fread(content.data(), 1, content.size(), raw), content.size());
        const auto at = std::search(content.begin(), content.end(), marker.begin(), marker.end());
        ASSERT_NE(at, content.end());
        std::fseek(raw, static_cast<long>(at - content.begin()) + 40, SEEK_SET);
        std::fputc(0xA4, raw);
        std::fclose(raw);
        Write(*writer, 2, 2);
        EXPECT_EQ(TakeAll(*reader), (std::vector<std::uint64_t>{2})) << by_stream;
        EXPECT_EQ(reader->reader_counters().checksum_failures, 1U);
        EXPECT_EQ(logger_.Count("sample 1 of stream \"cam/left\" skipped"), by_stream ? 2U : 1U);
    }
}

TEST_F(AccessorTest, NewReaderTakesADeadOnesRowOverWithoutAReaper) {
    const auto file = Create(1, Spare(0, 2));
    const auto writer = Writer();
    Write(*writer, 1, 1);
    PeerProcess peer("read " + path_ + " " + kStream);
    ASSERT_EQ(peer.line(), "1");
    peer.Kill();
    const auto reader = Reader();
    EXPECT_EQ(TakeAll(*reader), (std::vector<std::uint64_t>{1}));
    EXPECT_EQ(reader->reader_counters().copied, 0U)
        << "the reader entry that may pin is its own now";
    ASSERT_EQ(file->readers().size(), 1U);
    EXPECT_EQ(file->readers()[0].pins, 1U) << "not the dead one's";
}

TEST_F(AccessorTest, ForkedChildDoesNothingAndHarmsNothing) {
    const auto file = Create(2);
    auto writer = Writer();
    auto reader = Reader(2);
    Write(*writer, 1, 2);
    const DataSample* held = Take(*reader);
    EXPECT_EQ(ResultInForkedChild([&] {
                  writer->WriteData(-1, 0, 0, nullptr, 0, nullptr, 0, 0);
                  reader->NewData();
                  const bool nothing = Take(*reader) == nullptr &&
                                       reader->OpenSharedMemory() == -1 &&
                                       !Accessor()->get_is_initialized();
                  reader.reset();
                  writer.reset();
                  return nothing ? 0 : 1;
              }),
              0);
    EXPECT_EQ(file->readers().at(0).pins, 1U);
    Write(*writer, 3, 40);
    EXPECT_TRUE(Holds(*held));
    EXPECT_EQ(TakeAll(*reader), (std::vector<std::uint64_t>{39, 40}));
}

}  // namespace
}  // namespace kvo::test
