#include "memory_fixture.h"
#include "peer_process.h"

namespace kvo::test {
namespace {

// What a process leaves behind that ends without a word.
using PeerTest = MemoryTest;

TEST_F(PeerTest, KilledReadersRowIsTakenBackAndTheWriterGoesOn) {
    const auto file = Create(1, Spare(0, 2));  // one row may pin
    const auto lock = ProcessLock::ForDirectory(directory_);
    const auto writer = Writer();
    Write(*writer, 1, 1);
    PeerProcess peer({"read", path_, kStream, "1"});
    ASSERT_EQ(peer.line(), "1 ");
    ASSERT_EQ(file->readers().size(), 1U);
    EXPECT_EQ(file->readers()[0].pins, 1U);
    Write(*writer, 2, 50);
    EXPECT_EQ(file->ReapDeadReaders(*lock), 0) << "it lives";
    peer.Kill();
    Write(*writer, 51, 100);
    EXPECT_EQ(writer->writer_counters().dropped, 0U);
    EXPECT_TRUE(file->InUse(*lock)) << "by the writer";
    EXPECT_EQ(file->ReapDeadReaders(*lock), 1);
    EXPECT_EQ(file->ReapDeadReaders(*lock), 0);
    EXPECT_TRUE(file->readers().empty());
}

TEST_F(PeerTest, NewReaderTakesADeadOnesRowOverWithoutAReaper) {
    const auto file = Create(1, Spare(0, 2));
    const auto writer = Writer();
    Write(*writer, 1, 1);
    PeerProcess peer({"read", path_, kStream, "1"});
    ASSERT_EQ(peer.line(), "1 ");
    peer.Kill();
    const auto reader = Reader();
    EXPECT_EQ(TakeAll(*reader), (std::vector<std::uint64_t>{1}));
    EXPECT_EQ(reader->reader_counters().copied, 0U) << "the row that may pin is its own now";
    ASSERT_EQ(file->readers().size(), 1U);
    EXPECT_EQ(file->readers()[0].pins, 1U) << "not the dead one's";
}

TEST_F(PeerTest, WritersRoleIsFreeWhenItsProcessIsDead) {
    const auto file = Create(2);
    const auto lock = ProcessLock::ForDirectory(directory_);
    PeerProcess peer({"write", path_, kStream, "5", std::to_string(kPayload)});
    ASSERT_EQ(peer.line(), "5");
    EXPECT_FALSE(Writer()->get_is_initialized());
    const ProcessTag writer_tag = file->writer_state().writer;
    EXPECT_TRUE(lock->Resolve(writer_tag.number, static_cast<std::uint32_t>(writer_tag.nonce)));
    peer.Kill();
    EXPECT_FALSE(file->InUse(*lock));
    const auto writer = Writer();
    ASSERT_TRUE(writer->get_is_initialized());
    Write(*writer, 6, 7);
    EXPECT_EQ(TakeAll(*Reader()), (std::vector<std::uint64_t>{6, 7}));
}

TEST_F(PeerTest, ForkedChildDoesNothingAndHarmsNothing) {
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
