#include "broker_fixture.h"
#include "kvo/broker/broker_result.h"
#include "peer_process.h"

#include <gmock/gmock.h>

#include <filesystem>

namespace kvo::brokerd {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;

class PublishersTest : public BrokerParts {};

TEST_F(PublishersTest, RefusalsHaveTheirCodeTheirReasonAndNoConsequence) {
    ASSERT_EQ(kRegistered, Add('a', "taken"));
    const auto files_before = place.Content().size();
    const struct {
        const char* stream;
        std::int32_t bytes;
        std::int32_t samples;
        std::int32_t code;
        const char* reason;
    } cases[] = {
        {"", 64, 4, kIllFormedName, "cannot name a stream"},
        {"two words", 0, 0, kIllFormedName, "two words"},
        {"zero", 0, 4, kIllFormedGeometry, "0"},
        {"negative", 64, -7, kIllFormedGeometry, "-7"},
        {"many", 64, 2'147'483'647, kIllFormedGeometry, "2147483647"},
        {"huge", 2'147'483'647, 1'000'000, kNotEnoughMemory, "bytes of shared memory"},
        {"taken", 64, 4, kStreamInUse, "taken"},
        {"large", 1 << 20, 100, kNotEnoughMemory, "bytes of shared memory"},
    };
    for (const auto& refused : cases) {
        const Verdict verdict = Publish('b', refused.stream, refused.bytes, refused.samples);
        EXPECT_EQ(refused.code, verdict.code) << refused.stream;
        EXPECT_THAT(verdict.reason, HasSubstr(refused.reason));
    }
    EXPECT_EQ(files_before, place.Content().size());
    EXPECT_EQ(0U, SubscribersOf("taken"));
    EXPECT_EQ(kRegistered, Subscribe(kAnonymous, "uuid", "second"));
    EXPECT_EQ(kRegistered, Subscribe(kAnonymous, "uuid", "third"));
    EXPECT_EQ(kLimitReached, Add('b', "fourth"));
    EXPECT_EQ(kLimitReached, Subscribe(kAnonymous, "uuid", "fourth"));
    EXPECT_THAT(registry->publishers().Names(), ElementsAre("taken"));
}

TEST_F(PublishersTest, TheKeyKeepsTheSegmentAndAnotherShapeMakesANewOne) {
    ASSERT_EQ(kRegistered, Add('a', "s"));
    const std::string key = KeyOf('a', "s");
    const std::uint64_t epoch = EpochOf("s");
    EXPECT_THROW(KeyOf('b', "s"), std::runtime_error);
    EXPECT_EQ(std::string::npos, log.find(key));
    const auto writer = WriterOf("s");
    writer->WriteData(-1, 0, 0, nullptr, 0, nullptr, 0, 1);
    TakeEvents();

    EXPECT_EQ(kRegistered, Add('a', "s", key));
    EXPECT_EQ(epoch, EpochOf("s"));
    EXPECT_THAT(TakeEvents(), ElementsAre(Pair("s", PUB_REG), Pair("s", NEW_DATA)));
    EXPECT_EQ(kStreamInUse, Add('b', "s", key.substr(1) + "x"));

    EXPECT_EQ(kRegistered, Add('a', "s", key, 128));
    EXPECT_LT(epoch, EpochOf("s"));
    writer->WriteData(-1, 0, 0, nullptr, 0, nullptr, 0, 1);
    EXPECT_EQ(1U, writer->writer_counters().discarded);
}

TEST_F(PublishersTest, ADeadPublisherIsToldOfAtOnceAndItsFileGoesAfterTheGrace) {
    processes.tags[IdentityOf('a')] = {7, 1};
    ASSERT_EQ(kRegistered, Add('a', "s"));
    Pass(kTick);
    TakeEvents();
    processes.dead.insert(7);
    EXPECT_FALSE(IsPublished("s"));
    registry->sweep().Run();
    EXPECT_THAT(TakeEvents(), ElementsAre(Pair("s", PUB_UNREG)));
    Pass(std::chrono::milliseconds(1900));
    EXPECT_THAT(TakeEvents(), IsEmpty());
    Pass(std::chrono::milliseconds(200));
    EXPECT_THAT(TakeEvents(), ElementsAre(Pair("s", SHM_DEL)));
    EXPECT_FALSE(std::filesystem::exists(PathOf("s")));
    EXPECT_FALSE(registry->StateOf(StreamName("s")));
}

TEST_F(PublishersTest, APublisherKilledBeforeItWasLookedForIsToldOfAtOnceToo) {
    ASSERT_EQ(kRegistered, Add('a', "known"));
    ASSERT_EQ(kRegistered, Add(kAnonymous, "anonymous"));  // judged by its heartbeats alone
    const auto writer_of = [this](const std::string& stream) {
        return "write " + PathOf(stream) + " " + stream;
    };
    test::PeerProcess known(writer_of("known"));
    test::PeerProcess anonymous(writer_of("anonymous"));
    registry->sweep().Run();
    EXPECT_THAT(registry->publishers().Names(), ElementsAre("anonymous", "known"));
    TakeEvents();
    known.Kill();
    anonymous.Kill();
    EXPECT_FALSE(IsPublished("known"));
    EXPECT_THAT(TakeEvents(), ElementsAre(Pair("known", PUB_UNREG)));
    registry->sweep().Run();
    EXPECT_THAT(registry->publishers().Names(), ElementsAre("anonymous"));

    // A publisher that goes on with the key has not died with the writer before it.
    const std::string key = KeyOf(kAnonymous, "anonymous");
    ASSERT_EQ(kRegistered, Add('b', "anonymous", key));
    registry->sweep().Run();
    EXPECT_TRUE(IsPublished("anonymous"));
}

TEST_F(PublishersTest, ASuccessorCancelsTheRemoval) {
    ASSERT_EQ(kRegistered, Add('a', "s"));
    const std::uint64_t epoch = EpochOf("s");
    EXPECT_EQ(-1, Remove('b', "s"));
    EXPECT_EQ(1, Remove('a', "s"));
    EXPECT_EQ(-1, Remove('a', "s"));
    ASSERT_EQ(kRegistered, Add('b', "s"));
    EXPECT_LT(epoch, EpochOf("s"));
    Pass(std::chrono::seconds(5));
    EXPECT_THAT(TakeEvents(),
                ElementsAre(Pair("s", PUB_REG), Pair("s", PUB_UNREG), Pair("s", PUB_REG)));
    EXPECT_TRUE(std::filesystem::exists(PathOf("s")));

    EXPECT_EQ(1, registry->publishers().EndStream(StreamName("s"), "user root (0)").code);
    EXPECT_EQ(-1, registry->publishers().EndStream(StreamName("s"), "user root (0)").code);
    EXPECT_THAT(log, HasSubstr("\"s\": publisher unregistered, by user root (0)"));
    Pass(std::chrono::seconds(3));
    EXPECT_THAT(TakeEvents(), ElementsAre(Pair("s", PUB_UNREG), Pair("s", SHM_DEL)));
}

TEST_F(PublishersTest, APublisherThatLeavesBeforeItTakesItsFileLosesTheName) {
    ASSERT_EQ(kRegistered, Add('a', "early"));
    processes.tags[IdentityOf('b')] = {2, 2};
    ASSERT_EQ(kRegistered, Add('b', "joined"));
    registry->publishers().OnDisconnect(IdentityOf('a'));
    registry->publishers().OnDisconnect(IdentityOf('b'));
    EXPECT_THAT(registry->publishers().Names(), ElementsAre("joined"));
    EXPECT_EQ(kRegistered, Add('c', "early"));
}

TEST_F(PublishersTest, TheLargestBufferFitsAndOneSampleMoreDoesNot) {
    for (const std::int32_t bytes : {1, 100, 5000, 1 << 20, 60 << 20}) {
        const std::int32_t largest = files->LargestBuffer(bytes);
        const std::int32_t samples = largest / bytes;
        EXPECT_EQ(kNotEnoughMemory, Add('a', "s", "", bytes, samples + 1)) << bytes;
        if (samples > 0) {
            EXPECT_EQ(kRegistered, Add('a', "s", "", bytes, samples)) << bytes;
            Remove('a', "s");
            Pass(std::chrono::seconds(3));
        }
    }
    EXPECT_EQ(0, files->LargestBuffer(0));
    EXPECT_EQ(0, files->LargestBuffer(-5));
    EXPECT_EQ(0, files->LargestBuffer(65 << 20));
}

}  // namespace
}  // namespace kvo::brokerd
