#include "broker_fixture.h"
#include "kvo/broker/broker_result.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>

namespace kvo::brokerd {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Pair;

class StreamRegistryTest : public BrokerParts {};

TEST_F(StreamRegistryTest, RegistrationsBeyondTheQuotaOfAProcessOrAUserAreRejected) {
    const std::uint64_t bytes = files->Plan(64, 4).total_bytes();
    RegistrySettings settings{std::chrono::seconds(10), std::chrono::seconds(2), 100};
    const auto publish = [this](char process, const char* stream, const char* user) {
        return Publish(process, stream, 64, 4, user);
    };
    settings.per_client = {2, 0};
    registry->set_settings(settings);
    ASSERT_EQ(kRegistered, publish('a', "1", "u").code);
    ASSERT_EQ(kRegistered, Subscribe('a', "uuid", "2", "u"));
    EXPECT_EQ(kRegistered, Subscribe('a', "more", "1", "u"));
    const Verdict third = publish('a', "3", "u");
    EXPECT_EQ(kLimitReached, third.code);
    EXPECT_THAT(third.reason, HasSubstr("requests 1 more streams and uses 2, at most 2"));
    EXPECT_EQ(kLimitReached, Subscribe('a', "uuid", "3", "u"));
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
    EXPECT_THAT(fourth.reason, HasSubstr("u requests 1 more streams and uses 4, at most 4"));
    EXPECT_EQ(kRegistered, publish('d', "5", "other").code);
    settings.per_user = {0, bytes};
    registry->set_settings(settings);
    EXPECT_EQ(kLimitReached, publish('e', "6", "other").code);
    EXPECT_EQ(kRegistered, Subscribe('e', "u5", "6", "other"));
}

TEST_F(StreamRegistryTest, DrainingEndsAllRegistrationsAndAcceptsNone) {
    ASSERT_EQ(kRegistered, Add('a', "s"));
    const std::string path = PathOf("s");
    TakeEvents();
    registry->Drain();
    EXPECT_THAT(TakeEvents(), ElementsAre(Pair("s", PUB_UNREG), Pair("s", SHM_DEL)));
    EXPECT_FALSE(std::filesystem::exists(path));
    EXPECT_EQ(kLimitReached, Add('a', "s"));
    EXPECT_EQ(kLimitReached, Subscribe(kAnonymous, "uuid", "s"));
    EXPECT_TRUE(registry->draining());
}

TEST_F(StreamRegistryTest, ARestartKeepsWhatIsWrittenAndClearsWhatIsNot) {
    ASSERT_EQ(kRegistered, Add('a', "living"));
    ASSERT_EQ(kRegistered, Add('a', "left"));
    const std::string key = KeyOf('a', "living");
    const std::uint64_t epoch = EpochOf("living");
    auto writer = WriterOf("living");
    std::ofstream(PathOf("garbage")) << "no stream file";
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

    // A client that listens before the publisher is back can read what it wrote.
    TakeEvents();
    registry->OnSubscription(StreamName("living"));
    registry->OnSubscription(StreamName("left"));
    EXPECT_THAT(TakeEvents(), ElementsAre(Pair("living", NEW_DATA)));

    EXPECT_FALSE(IsPublished("living"));
    EXPECT_EQ(kShmFileExists, Add('b', "living"));
    EXPECT_EQ(kRegistered, Add('a', "living", key));
    EXPECT_EQ(epoch, EpochOf("living"));
    EXPECT_EQ(key, KeyOf('a', "living"));

    Restart();
    TakeEvents();
    writer.reset();  // and its publisher never comes back
    registry->sweep().Run();
    EXPECT_THAT(TakeEvents(), ElementsAre(Pair("living", SHM_DEL)));
    EXPECT_FALSE(std::filesystem::exists(PathOf("living")));
}

TEST_F(StreamRegistryTest, AReaderKeepsTheMemoryOfARemovedFileInTheAccount) {
    budget = 1U << 20;
    Restart();
    ASSERT_EQ(kRegistered, Add('a', "s", "", 64, 4));
    const std::uint64_t available = files->AvailableBytes();
    KvoMemoryAccessor reader(PathOf("s"), "s", nullptr, 0, 1);
    reader.StartReading();
    Remove('a', "s");
    Pass(std::chrono::seconds(3));
    EXPECT_EQ(available, files->AvailableBytes());
    reader.CloseSharedMemory();
    registry->sweep().Run();
    EXPECT_EQ(budget, files->AvailableBytes());
}

}  // namespace
}  // namespace kvo::brokerd
