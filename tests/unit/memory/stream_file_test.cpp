#include "kvo/memory/stream_file.h"

#include "memory_fixture.h"

#include <cerrno>
#include <sys/stat.h>
#include <system_error>

namespace kvo::test {
namespace {

using StreamFileTest = MemoryTest;

TEST_F(StreamFileTest, GeometryHasRoomForEveryPinThatMayBeHeld) {
    for (const std::int64_t payload : {1, 4096, 1 << 20}) {
        for (const std::int64_t retained : {1, 10, 1000}) {
            for (const std::uint32_t pins : {1U, 2U, 6U}) {
                SpareSlots spare;
                spare.pins_per_row = pins;
                const StreamGeometry g = PlanGeometry(payload, retained, spare);
                EXPECT_EQ(g.slot_count,
                          g.retained_samples + g.pinning_rows * g.pins_per_row + g.close_batch);
                EXPECT_GE(g.pinning_rows, 1U);
                EXPECT_GE(g.file_bytes, g.slot_count * g.slot_stride);
            }
        }
    }
    EXPECT_THROW(PlanGeometry(0, 1, {}), std::invalid_argument);
    EXPECT_THROW(PlanGeometry(1, 0, {}), std::invalid_argument);
    EXPECT_THROW(PlanGeometry(1LL << 31, 1, {}), std::invalid_argument);
    EXPECT_THROW(PlanGeometry(1, 1 << 20, {}), std::invalid_argument);
}

TEST_F(StreamFileTest, CreatedFileIsReservedAndOpensAsItWasMade) {
    StreamFile::Creation creation;
    creation.path = path_;
    creation.stream = std::string(255, 's');
    creation.geometry = PlanGeometry(1000, 7, {});
    creation.epoch = 42;
    creation.key_digest = DigestKey("key");
    const auto made = StreamFile::Create(creation);
    const auto opened = StreamFile::Open(path_);
    EXPECT_EQ(opened->uuid(), made->uuid());
    EXPECT_EQ(opened->stream(), creation.stream);
    EXPECT_EQ(opened->epoch(), 42U);
    EXPECT_EQ(opened->key_digest(), DigestKey("key"));
    EXPECT_NE(opened->key_digest(), DigestKey("kez"));
    EXPECT_EQ(opened->geometry().slot_count, creation.geometry.slot_count);
    struct stat status {};
    ASSERT_EQ(::stat(path_.c_str(), &status), 0);
    EXPECT_GE(static_cast<std::uint64_t>(status.st_blocks) * 512, creation.geometry.file_bytes);
    creation.stream += 's';
    EXPECT_THROW(StreamFile::Create(creation), std::invalid_argument);
}

TEST_F(StreamFileTest, CreationWithoutRoomLeavesTheOldPairAloneAndNothingElse) {
    const auto old = Create(4);
    const auto files = Files();
    StreamFile::Creation creation;
    creation.path = path_;
    creation.stream = kStream;
    creation.geometry = PlanGeometry((1LL << 31) - 1, 100'000, {});
    try {
        StreamFile::Create(creation);
        FAIL() << "200 TB fitted into /dev/shm";
    } catch (const std::system_error& error) {
        EXPECT_EQ(error.code(), std::errc::no_space_on_device);
        EXPECT_NE(std::string(error.what()).find(std::to_string(creation.geometry.file_bytes)),
                  std::string::npos);
    }
    EXPECT_EQ(Files(), files);
    EXPECT_EQ(StreamFile::Open(path_)->uuid(), old->uuid());
}

TEST_F(StreamFileTest, SuccessorReplacesThePairAndOutlivesTheRemovalOfTheOld) {
    const auto old = Create(4, Spare(), 1);
    const auto successor = Create(4, Spare(), 2);
    EXPECT_NE(old->uuid(), successor->uuid());
    EXPECT_EQ(Files().size(), 2U);
    old->Remove();
    EXPECT_EQ(StreamFile::Open(path_)->epoch(), 2U);
    successor->Remove();
    EXPECT_TRUE(Files().empty());
    successor->Remove();
}

TEST_F(StreamFileTest, ShowsWriterAndReaders) {
    const auto file = Create(2);
    const auto lock = ProcessLock::ForDirectory(directory_);
    EXPECT_FALSE(file->InUse(*lock));
    EXPECT_EQ(file->writer_state().writer.number, 0);
    {
        const auto writer = Writer();
        EXPECT_TRUE(file->InUse(*lock));
        const auto reader = Reader();
        Write(*writer, 1, 3);
        ASSERT_NE(Take(*reader), nullptr);
        const WriterState state = file->writer_state();
        EXPECT_EQ(state.writer.number, lock->Join().number);
        EXPECT_EQ(state.newest_sequence, 3U);
        EXPECT_EQ(state.written, 3U);
        EXPECT_EQ(state.payload_bytes, 3U * kPayload);
        EXPECT_EQ(state.last_write_ms, 3U);
        const auto readers = file->readers();
        ASSERT_EQ(readers.size(), 1U);
        EXPECT_EQ(readers[0].reader, lock->Join());
        EXPECT_EQ(readers[0].pins, 1U);
        EXPECT_EQ(readers[0].read, 1U);
        EXPECT_EQ(readers[0].lost, 1U);
        EXPECT_EQ(readers[0].next_sequence, 3U);
        EXPECT_EQ(file->ReapDeadReaders(*lock), 0);
    }
    EXPECT_FALSE(file->InUse(*lock));
    EXPECT_TRUE(file->readers().empty());
}

}  // namespace
}  // namespace kvo::test
