#include "broker_fixture.h"
#include "kvo/broker/broker_result.h"
#include "peer_process.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>

namespace kvo::brokerd {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;

class StreamRegistryTest : public BrokerParts {};

TEST_F(StreamRegistryTest, RefusalsHaveTheirCodeTheirReasonAndNoConsequence) {
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
        const Verdict verdict = registry->AddPublisher(
            IdentityOf('b'), {refused.stream, refused.bytes, refused.samples, false, ""});
        EXPECT_EQ(refused.code, verdict.code) << refused.stream;
        EXPECT_THAT(verdict.reason, HasSubstr(refused.reason));
    }
    EXPECT_EQ(files_before, place.Content().size());
    EXPECT_EQ(0U, registry->StateOf("taken")->subscribers);
    EXPECT_EQ(kRegistered, registry->AddSubscriber("", "uuid", "second").code);
    EXPECT_EQ(kRegistered, registry->AddSubscriber("", "uuid", "third").code);
    EXPECT_EQ(kLimitReached, Add('b', "fourth"));
    EXPECT_EQ(kLimitReached, registry->AddSubscriber("", "uuid", "fourth").code);
    EXPECT_THAT(registry->Published(), ElementsAre("taken"));
}

TEST_F(StreamRegistryTest, NobodyGetsMoreThanTheShareOfAProcessOrAUser) {
    const std::uint64_t bytes = files->Plan(64, 4).total_bytes();
    StreamRegistry::Settings settings{std::chrono::seconds(10), std::chrono::seconds(2), 100};
    const auto publish = [this](char process, const char* stream, const char* user) {
        return registry->AddPublisher(IdentityOf(process), {stream, 64, 4, false, "", user});
    };
    settings.per_client = {2, 0};
    registry->set_settings(settings);
    ASSERT_EQ(kRegistered, publish('a', "1", "u").code);
    ASSERT_EQ(kRegistered, registry->AddSubscriber(IdentityOf('a'), "uuid", "2", "u").code);
    EXPECT_EQ(kRegistered, registry->AddSubscriber(IdentityOf('a'), "more", "1", "u").code);
    const Verdict third = publish('a', "3", "u");
    EXPECT_EQ(kLimitReached, third.code);
    EXPECT_THAT(third.reason, HasSubstr("asks for 1 more streams and uses 2, at most 2"));
    EXPECT_EQ(kLimitReached, registry->AddSubscriber(IdentityOf('a'), "uuid", "3", "u").code);
    EXPECT_EQ(kRegistered, publish('b', "3", "u").code);
    EXPECT_EQ(kRegistered, Add('a', "1", KeyOf('a', "1"), 128)) << "the same stream anew";

    settings.per_client = {0, bytes * 3 / 2};
    settings.per_user = {4, 0};
    registry->set_settings(settings);
    const Verdict larger = publish('b', "4", "other");
    EXPECT_EQ(kLimitReached, larger.code);
    EXPECT_THAT(larger.reason, HasSubstr("uses " + std::to_string(bytes)));
    EXPECT_EQ(kRegistered, publish('c', "4", "u").code);
    const Verdict fourth = publish('d', "5", "u");
    EXPECT_EQ(kLimitReached, fourth.code);
    EXPECT_THAT(fourth.reason, HasSubstr("u asks for 1 more streams and uses 4, at most 4"));
    EXPECT_EQ(kRegistered, publish('d', "5", "other").code);
    settings.per_user = {0, bytes};
    registry->set_settings(settings);
    EXPECT_EQ(kLimitReached, publish('e', "6", "other").code);
    EXPECT_EQ(kRegistered, registry->AddSubscriber(IdentityOf('e'), "u5", "6", "other").code);
}

TEST_F(StreamRegistryTest, TheKeyKeepsTheSegmentAndAnotherShapeMakesANewOne) {
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

TEST_F(StreamRegistryTest, ADeadPublisherIsToldOfAtOnceAndItsFileGoesAfterTheGrace) {
    processes.tags[IdentityOf('a')] = {7, 1};
    ASSERT_EQ(kRegistered, Add('a', "s"));
    Pass(kTick);
    TakeEvents();
    processes.dead.insert(7);
    EXPECT_FALSE(registry->IsPublished("s"));
    registry->Supervise();
    EXPECT_THAT(TakeEvents(), ElementsAre(Pair("s", PUB_UNREG)));
    Pass(std::chrono::milliseconds(1900));
    EXPECT_THAT(TakeEvents(), IsEmpty());
    Pass(std::chrono::milliseconds(200));
    EXPECT_THAT(TakeEvents(), ElementsAre(Pair("s", SHM_DEL)));
    EXPECT_FALSE(std::filesystem::exists(files->PathOf("s")));
    EXPECT_FALSE(registry->StateOf("s"));
}

TEST_F(StreamRegistryTest, APublisherKilledBeforeItWasLookedForIsToldOfAtOnceToo) {
    const auto publish = [this](const std::string& identity, const std::string& stream) {
        ASSERT_EQ(kRegistered, registry->AddPublisher(identity, {stream, 64, 4, false, ""}).code);
    };
    publish(IdentityOf('a'), "known");
    publish("", "anonymous");  // judged by its heartbeats alone
    const auto writer_of = [this](const std::string& stream) {
        return "write " + files->PathOf(stream) + " " + stream;
    };
    test::PeerProcess known(writer_of("known"));
    test::PeerProcess anonymous(writer_of("anonymous"));
    registry->Supervise();
    EXPECT_THAT(registry->Published(), ElementsAre("anonymous", "known"));
    TakeEvents();
    known.Kill();
    anonymous.Kill();
    EXPECT_FALSE(registry->IsPublished("known"));
    EXPECT_THAT(TakeEvents(), ElementsAre(Pair("known", PUB_UNREG)));
    registry->Supervise();
    EXPECT_THAT(registry->Published(), ElementsAre("anonymous"));

    // Who goes on with the key has not died with the writer of before.
    const std::string key = registry->KeyFor("", "anonymous");
    ASSERT_EQ(kRegistered, Add('b', "anonymous", key));
    registry->Supervise();
    EXPECT_TRUE(registry->IsPublished("anonymous"));
}

TEST_F(StreamRegistryTest, ASuccessorCancelsTheRemoval) {
    ASSERT_EQ(kRegistered, Add('a', "s"));
    const std::uint64_t epoch = EpochOf("s");
    EXPECT_EQ(-1, registry->RemovePublisher(IdentityOf('b'), "s").code);
    EXPECT_EQ(1, registry->RemovePublisher(IdentityOf('a'), "s").code);
    EXPECT_EQ(-1, registry->RemovePublisher(IdentityOf('a'), "s").code);
    ASSERT_EQ(kRegistered, Add('b', "s"));
    EXPECT_LT(epoch, EpochOf("s"));
    Pass(std::chrono::seconds(5));
    EXPECT_THAT(TakeEvents(),
                ElementsAre(Pair("s", PUB_REG), Pair("s", PUB_UNREG), Pair("s", PUB_REG)));
    EXPECT_TRUE(std::filesystem::exists(files->PathOf("s")));

    EXPECT_EQ(1, registry->EndStream("s", "user root (0)").code);
    EXPECT_EQ(-1, registry->EndStream("s", "user root (0)").code);
    EXPECT_THAT(log, HasSubstr("\"s\": publisher unregistered, by user root (0)"));
    Pass(std::chrono::seconds(3));
    EXPECT_THAT(TakeEvents(), ElementsAre(Pair("s", PUB_UNREG), Pair("s", SHM_DEL)));
}

TEST_F(StreamRegistryTest, SilenceEndsARegistrationButNotTheBrokersOwnPauses) {
    ASSERT_EQ(kRegistered, Add('a', "s"));
    ASSERT_EQ(kRegistered, registry->AddSubscriber(IdentityOf('b'), "uuid", "s").code);
    now += std::chrono::hours(1);  // the broker was stopped
    time.Tick();
    registry->Supervise();
    EXPECT_TRUE(registry->IsPublished("s"));
    Pass(std::chrono::seconds(8));
    registry->Beat(IdentityOf('a'), "s");
    EXPECT_THROW(registry->Beat(IdentityOf('b'), "s"), std::runtime_error);
    EXPECT_THROW(registry->Beat(IdentityOf('a'), "uuid"), std::runtime_error);
    EXPECT_THROW(registry->Beat(IdentityOf('a'), "nobody"), std::runtime_error);
    Pass(std::chrono::seconds(8));
    EXPECT_TRUE(registry->IsPublished("s"));
    EXPECT_EQ(0U, registry->StateOf("s")->subscribers);
    Pass(std::chrono::seconds(3));
    EXPECT_FALSE(registry->IsPublished("s"));
}

// 'a' stands in a debugger: its process lives, but its connections do not answer.
TEST_F(StreamRegistryTest, AStalledClientIsShownAndKept) {
    processes.tags[IdentityOf('a')] = {1, 1};
    processes.tags[IdentityOf('b')] = {2, 2};
    ASSERT_EQ(kRegistered, Add('a', "s"));
    ASSERT_EQ(kRegistered, registry->AddSubscriber(IdentityOf('b'), "uuid", "s").code);
    const auto stalled = [this] {
        std::vector<std::string> ids;
        for (const ClientState& client : registry->Clients()) {
            if (client.stalled) {
                ids.push_back(client.id);
            }
        }
        return ids;
    };
    processes.disconnected.insert(IdentityOf('a'));
    processes.disconnected.insert(IdentityOf('b'));
    Pass(std::chrono::minutes(5));
    EXPECT_TRUE(registry->IsPublished("s"));
    EXPECT_THAT(stalled(), ElementsAre("s", "uuid"));
    EXPECT_THAT(log, HasSubstr("is stalled"));
    processes.disconnected.clear();
    registry->Beat(IdentityOf('a'), "s");
    registry->Supervise();  // 'b' answers, and has ended its heartbeats
    EXPECT_THAT(stalled(), IsEmpty());
    EXPECT_EQ(0U, registry->StateOf("s")->subscribers);
    EXPECT_TRUE(registry->IsPublished("s"));
    processes.disconnected.insert(IdentityOf('a'));
    processes.dead.insert(1);
    registry->Supervise();
    EXPECT_FALSE(registry->IsPublished("s"));
}

TEST_F(StreamRegistryTest, APublisherThatLeavesBeforeItTakesItsFileLosesTheName) {
    ASSERT_EQ(kRegistered, Add('a', "early"));
    processes.tags[IdentityOf('b')] = {2, 2};
    ASSERT_EQ(kRegistered, Add('b', "joined"));
    registry->Lost(IdentityOf('a'));
    registry->Lost(IdentityOf('b'));
    EXPECT_THAT(registry->Published(), ElementsAre("joined"));
    EXPECT_EQ(kRegistered, Add('c', "early"));
}

TEST_F(StreamRegistryTest, DrainingEndsAllAndLetsNobodyIn) {
    ASSERT_EQ(kRegistered, Add('a', "s"));
    const std::string path = files->PathOf("s");
    TakeEvents();
    registry->Drain();
    EXPECT_THAT(TakeEvents(), ElementsAre(Pair("s", PUB_UNREG), Pair("s", SHM_DEL)));
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(kLimitReached, Add('a', "s"));
    EXPECT_EQ(kLimitReached, registry->AddSubscriber("", "uuid", "s").code);
    EXPECT_TRUE(registry->draining());
}

TEST_F(StreamRegistryTest, TheLargestBufferFitsAndOneSampleMoreDoesNot) {
    for (const std::int32_t bytes : {1, 100, 5000, 1 << 20, 60 << 20}) {
        const std::int32_t largest = files->LargestBuffer(bytes);
        const std::int32_t samples = largest / bytes;
        EXPECT_EQ(kNotEnoughMemory, Add('a', "s", "", bytes, samples + 1)) << bytes;
        if (samples > 0) {
            EXPECT_EQ(kRegistered, Add('a', "s", "", bytes, samples)) << bytes;
            registry->RemovePublisher(IdentityOf('a'), "s");
            Pass(std::chrono::seconds(3));
        }
    }
    EXPECT_EQ(0, files->LargestBuffer(0));
    EXPECT_EQ(0, files->LargestBuffer(-5));
    EXPECT_EQ(0, files->LargestBuffer(65 << 20));
}

TEST_F(StreamRegistryTest, ARestartKeepsWhatIsWrittenAndClearsWhatIsNot) {
    ASSERT_EQ(kRegistered, Add('a', "living"));
    ASSERT_EQ(kRegistered, Add('a', "left"));
    const std::string key = KeyOf('a', "living");
    const std::uint64_t epoch = EpochOf("living");
    auto writer = WriterOf("living");
    std::ofstream(files->PathOf("garbage")) << "no stream file";
    const std::string uuid(32, '0');
    std::ofstream(directory.path() + "/" + uuid + ".pins");
    std::ofstream(directory.path() + "/" + uuid + ".new");
    const std::set<std::string> foreign{"notes.new", "bowling.pins", "mountain.stream"};
    for (const std::string& name : foreign) {
        std::ofstream(directory.path() + "/" + name);
    }
    writer->WriteData(-1, 0, 0, nullptr, 0, nullptr, 0, 1);
    Restart();
    EXPECT_THAT(log, HasSubstr("no stream file"));
    for (const std::string& name : foreign) {
        EXPECT_TRUE(std::filesystem::remove(directory.path() + "/" + name)) << name;
    }
    const auto content = place.Content();
    // Folder, two locks, two files of the stream.
    EXPECT_EQ(5U, content.size()) << ::testing::PrintToString(content);

    // Who listens before the publisher is back can read what it wrote.
    TakeEvents();
    registry->Listening("living");
    registry->Listening("left");
    EXPECT_THAT(TakeEvents(), ElementsAre(Pair("living", NEW_DATA)));

    EXPECT_FALSE(registry->IsPublished("living"));
    EXPECT_EQ(kShmFileExists, Add('b', "living"));
    EXPECT_EQ(kRegistered, Add('a', "living", key));
    EXPECT_EQ(epoch, EpochOf("living"));
    EXPECT_EQ(key, KeyOf('a', "living"));

    Restart();
    TakeEvents();
    writer.reset();  // and its publisher never comes back
    registry->Supervise();
    EXPECT_THAT(TakeEvents(), ElementsAre(Pair("living", SHM_DEL)));
    EXPECT_FALSE(std::filesystem::exists(files->PathOf("living")));
}

TEST_F(StreamRegistryTest, AReaderKeepsTheMemoryOfARemovedFileInTheAccount) {
    budget = 1U << 20;
    Restart();
    ASSERT_EQ(kRegistered, Add('a', "s", "", 64, 4));
    const std::uint64_t available = files->AvailableBytes();
    KvoMemoryAccessor reader(files->PathOf("s"), "s", nullptr, 0, 1);
    reader.StartReading();
    registry->RemovePublisher(IdentityOf('a'), "s");
    Pass(std::chrono::seconds(3));
    EXPECT_EQ(available, files->AvailableBytes());
    reader.CloseSharedMemory();
    registry->Supervise();
    EXPECT_EQ(budget, files->AvailableBytes());
}

}  // namespace
}  // namespace kvo::brokerd
