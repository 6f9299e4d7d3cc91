#include "kvo/memory/stream_file.h"

#include "memory_fixture.h"

#include <cerrno>
#include <sys/stat.h>
#include <system_error>

namespace kvo::test {
namespace {

using StreamFileTest = MemoryTest;

TEST_F(StreamFileTest, ImpossibleGeometriesAreRefused) {
    EXPECT_THROW(static_cast<void>(PlanGeometry(0, 1, {})), std::invalid_argument);
    EXPECT_THROW(static_cast<void>(PlanGeometry(1, 0, {})), std::invalid_argument);
    EXPECT_THROW(static_cast<void>(PlanGeometry(1LL << 31, 1, {})), std::invalid_argument);
    EXPECT_THROW(static_cast<void>(PlanGeometry(1, 1 << 20, {})), std::invalid_argument);
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
    EXPECT_THROW(static_cast<void>(StreamFile::Create(creation)), std::invalid_argument);
}

TEST_F(StreamFileTest, SuccessorReplacesThePairAndOutlivesTheRemovalOfTheOld) {
    const auto old = Create(4, Spare(), 1);
    const auto successor = Create(4, Spare(), 2);
    EXPECT_NE(old->uuid(), successor->uuid());
    EXPECT_EQ(place_.Content().size(), 2U);
    old->Remove();
    EXPECT_EQ(StreamFile::Open(path_)->epoch(), 2U);
    successor->Remove();
    EXPECT_TRUE(place_.Content().empty());
    successor->Remove();
}

}  // namespace
}  // namespace kvo::test
