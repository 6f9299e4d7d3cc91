#include "kvo/memory/process_lock.h"

#include "kvo/os/process_identity.h"
#include "memory_fixture.h"
#include "peer_process.h"

#include <sstream>

namespace kvo::test {
namespace {

class ProcessLockTest : public MemoryTest {
protected:
    static ProcessTag TagOf(const PeerProcess& peer) {
        ProcessTag tag;
        std::istringstream(peer.line()) >> tag.number >> tag.nonce;
        return tag;
    }
};

TEST_F(ProcessLockTest, AProcessHoldsOneByteForAllItsUsers) {
    auto first = ProcessLock::ForDirectory(directory_);
    auto second = ProcessLock::ForDirectory(directory_ + "/.");
    const ProcessTag tag = first->Join();
    EXPECT_EQ(tag, second->Join());
    EXPECT_EQ(tag, first->Join());
    first.reset();
    const auto onlooker = ProcessLock::ForDirectory(directory_);
    EXPECT_TRUE(onlooker->Lives(tag));
    EXPECT_TRUE(onlooker->HasOthers());
    EXPECT_FALSE(onlooker->RemoveIfUnused());
    EXPECT_FALSE(onlooker->Lives({tag.number, tag.nonce ^ 2})) << "an earlier holder's nonce";
    second.reset();
    EXPECT_FALSE(onlooker->Lives(tag));
    EXPECT_TRUE(onlooker->RemoveIfUnused());
    EXPECT_TRUE(place_.Content().empty());
    EXPECT_TRUE(onlooker->Lives(onlooker->Join())) << "joining makes the file anew";
}

TEST_F(ProcessLockTest, APeerLivesUntilItIsKilled) {
    const auto lock = ProcessLock::ForDirectory(directory_);
    PeerProcess peer("join " + directory_);
    const ProcessTag tag = TagOf(peer);
    const auto low = static_cast<std::uint32_t>(tag.nonce);
    ASSERT_NE(tag.number, 0);
    EXPECT_NE(lock->Join().number, tag.number);
    EXPECT_TRUE(lock->Lives(tag));
    EXPECT_EQ(lock->Resolve(tag.number, low), tag);
    EXPECT_EQ(lock->Resolve(tag.number, low ^ 1), std::nullopt);
    EXPECT_TRUE(lock->HasOthers());
    EXPECT_FALSE(lock->RemoveIfUnused());
    peer.Kill();
    EXPECT_FALSE(lock->Lives(tag));
    EXPECT_EQ(lock->Resolve(tag.number, low), std::nullopt);
    EXPECT_FALSE(lock->HasOthers());
}

TEST_F(ProcessLockTest, TheRecordsTellWhoHasJoinedWithWhichIdentity) {
    const auto lock = ProcessLock::ForDirectory(directory_);
    EXPECT_TRUE(lock->Joined().empty());
    const ProcessTag tag = lock->Join();
    const std::vector<std::pair<os::ProcessIdentity, ProcessTag>> expected{
        {os::OwnProcessIdentity(), tag}};
    EXPECT_EQ(lock->Joined(), expected);
}

TEST_F(ProcessLockTest, AForkedChildIsNobodyAndTakesNothingFromItsParent) {
    auto lock = ProcessLock::ForDirectory(directory_);
    const ProcessTag tag = lock->Join();
    EXPECT_EQ(ResultInForkedChild([&] {
                  bool refused = false;
                  try {
                      lock->Join();
                  } catch (const std::system_error&) {
                      refused = true;
                  }
                  const bool alive = lock->Lives(tag);
                  lock.reset();
                  return refused && !alive ? 0 : 1;
              }),
              0);
    PeerProcess peer("join " + directory_);
    EXPECT_NE(TagOf(peer).number, tag.number) << "our byte is still ours";
}

}  // namespace
}  // namespace kvo::test
