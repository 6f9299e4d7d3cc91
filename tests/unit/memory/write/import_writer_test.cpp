#include "kvo/memory/import_writer.h"

#include "memory_fixture.h"

#include <gmock/gmock.h>

#include <stdexcept>

namespace kvo::test {
namespace {

using ::testing::ElementsAre;

class ImportWriterTest : public MemoryTest {
protected:
    /// With the content that Holds() looks for.
    static bool Import(ImportWriter& writer, std::uint64_t number) {
        const Bytes bytes = ContentOf(number);
        const Bytes metadata{1, 2, 3};
        SampleView sample;
        sample.payload = bytes.data();
        sample.payload_bytes = kPayload;
        sample.metadata = metadata.data();
        sample.metadata_bytes = 3;
        sample.sample_tag = -5;
        sample.topic_id = 9;
        sample.timestamp_ms = 1234567890123;
        sample.source_sequence = number;
        return writer.Write(sample);
    }
};

TEST_F(ImportWriterTest, ReadersSeeTheNumbersOfTheSourceWithItsHoles) {
    const auto file = Create(4);
    ImportWriter writer(path_);
    const auto reader = Reader();
    for (const std::uint64_t number : {100, 101, 5000}) {
        EXPECT_TRUE(Import(writer, number));
    }
    const DataSample* const sample = Take(*reader);
    ASSERT_NE(nullptr, sample);
    EXPECT_TRUE(Holds(*sample));
    EXPECT_EQ(100U, sample->sequence_number());
    EXPECT_EQ(3, sample->metadata_size());
    EXPECT_EQ(-5, sample->sample_tag());
    EXPECT_EQ(9, sample->topic_id());
    EXPECT_EQ(1234567890123U, sample->timestamp_ms());
    EXPECT_THAT(TakeAll(*reader), ElementsAre(101, 5000));
    EXPECT_EQ(0U, reader->reader_counters().lost)
        << "samples lost in transit are counted elsewhere";

    for (std::uint64_t number = 5001; number <= 5010; ++number) {
        EXPECT_TRUE(Import(writer, number));
    }
    EXPECT_THAT(TakeAll(*reader), ElementsAre(5007, 5008, 5009, 5010));
    EXPECT_EQ(6U, reader->reader_counters().lost) << "what the reader was too late for is";
}

TEST_F(ImportWriterTest, WhatDoesNotFitIsNotWritten) {
    const auto file = Create(4);
    ImportWriter writer(path_);
    const Bytes bytes(5000);
    SampleView sample;
    sample.payload = sample.metadata = bytes.data();
    sample.source_sequence = 1;
    sample.payload_bytes = kPayload + 1;
    EXPECT_FALSE(writer.Write(sample));
    sample.payload_bytes = 0;
    sample.metadata_bytes = kMaxMetadataBytes + 1;
    EXPECT_FALSE(writer.Write(sample));
    EXPECT_EQ(0U, file->writer_state().newest_sequence);
    file->Retire();
    EXPECT_FALSE(Import(writer, 1));
    EXPECT_THROW(ImportWriter{path_}, std::runtime_error) << "a stream has one writer";
}

}  // namespace
}  // namespace kvo::test
