#include "gorm/cor/ps/local_topic.h"
#include "kvo/os/regular_file.h"
#include "local/topic_ring_reader.h"
#include "local/topic_ring_server.h"
#include "temp_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <log4cplus/appender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

// What others may do to the memory of a local topic: the worst that comes of it are wake-ups of
// that topic that are missing or not needed. Every mapped file lies between pages that cannot be
// touched (tests/fuzz/guarded_mapping.cpp), but under the sanitizers.
namespace gorm::cor::ps {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kNews = "news";  // the notification
constexpr std::chrono::seconds kDeadline{20};

/// Keeps what is logged. One thread.
class Capture final : public log4cplus::Appender {
public:
    explicit Capture(std::vector<std::string>& texts) : texts_(texts) {}
    ~Capture() override { destructorImpl(); }
    void close() override {}

private:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override {
        texts_.push_back(event.getMessage());
    }
    std::vector<std::string>& texts_;
};

class HostileRingTest : public ::testing::Test {
protected:
    std::unique_ptr<TopicRingServer> Make(const char* topic = "/a") const {
        return TopicRingServer::Make(directory_, topic, kNews, {});
    }
    /// As if it were killed.
    static void Leave(std::unique_ptr<TopicRingServer> server) {
        static auto& left = *new std::vector<std::unique_ptr<TopicRingServer>>;  // to the end
        left.push_back(std::move(server));
    }
    bool Opens() const {
        const bool read = TopicRingReader::Open(directory_, "/a").has_value();
        EXPECT_EQ(read, LocalTopic::Open(directory_, "/a") != nullptr);
        return read;
    }
    std::string Events() const { return EventsPath(directory_, "/a"); }
    template <class T>
    T& MapEvents() const {
        static std::vector<kvo::os::MappedFile> mapped;  // to the end of the process
        mapped.push_back(
            kvo::os::MapTrustedFile(Events(), sizeof(T), kvo::os::MappedFile::Access::kWrite));
        return mapped.back().as<T>();
    }
    template <class T>
    T& MapSignal() const {
        static std::vector<SystemVMemory> mapped;  // to the end of the process
        mapped.push_back(
            SystemVMemory::Attach(MapEvents<ring::EventsFile>().signal, sizeof(ring::Signal)));
        return mapped.back().as<T>();
    }
    /// Takes all there is, but no more than could be right; the events among it.
    static std::vector<std::string> TakeAll(TopicRingReader& reader, int most = 5000) {
        std::vector<std::string> events;
        for (int i = 0; i < most; ++i) {
            const auto sample = reader.Take();
            if (!sample) {
                break;
            }
            EXPECT_LE(sample->size(), ring::kMostTextBytes);
            if (*sample != kNews) {
                events.emplace_back(*sample);
            }
        }
        return events;
    }

    const kvo::test::TempDirectory temp_;
    const std::string directory_ = temp_.path();
};

TEST_F(HostileRingTest, FilesThatAreNoRingAreNotOpenedAndGiveWayToOne) {
    using Damage = std::function<void(const std::string& path)>;
    const auto put = [](const Damage& make) {
        return [make](const std::string& path) {
            fs::remove(path);
            make(path);
        };
    };
    const log4cplus::Initializer initializer;
    std::vector<std::string> warnings;
    log4cplus::Logger log = log4cplus::Logger::getInstance("gorm.cor");
    log.addAppender(log4cplus::SharedAppenderPtr(new Capture(warnings)));
    std::vector<SystemVMemory> made;
    const auto memory = [&](std::size_t bytes) {
        made.push_back(SystemVMemory::Create(IPC_PRIVATE, bytes, {0666, 54321}));
        return made.back().id();
    };
    const auto change = [](std::size_t at, char byte) {
        return [at, byte](const std::string& path) {
            std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
            file.seekp(static_cast<std::streamoff>(at));
            file.put(byte);
        };
    };
    const struct {
        const char* name;
        const char* warning;
        Damage damage;
    } cases[] = {
        {"no file", "", put([](auto&) {})},
        {"empty", "has 0 bytes, not", [](auto& path) { fs::resize_file(path, 0); }},
        {"short", "bytes, not", [](auto& path) { fs::resize_file(path, fs::file_size(path) - 1); }},
        {"a pipe", "is no regular file",
         put([](auto& path) { EXPECT_EQ(0, ::mkfifo(path.c_str(), 0600)); })},
        {"a directory", "is no regular file", put([](auto& path) { fs::create_directory(path); })},
        {"behind a link", "symbolic links", put([](auto& path) {
             fs::copy_file("/proc/self/exe", path + ".behind");  // long enough
             fs::create_symlink(path + ".behind", path);
         })},
        {"a stranger's", "belongs to user 54321",
         [](auto& path) { EXPECT_EQ(0, ::chown(path.c_str(), 54321, 54321)); }},
        {"another magic", "holds no events", change(0, 'X')},
        {"another version", "has layout 1, not 2", change(4, 1)},
        {"another ring's signal", "is another one", change(8, 0)},
        {"a longer path", "another topic's", change(16, 3)},
        {"a path of 4 GiB", "another topic's", change(19, '\xFF')},
        {"another path", "another topic's", change(21, 'b')},
        {"no signal", "memory 2000000000",
         [this](auto&) { MapEvents<ring::EventsFile>().signal = 2'000'000'000; }},
        {"a small signal", "has less than",
         [&](auto&) { MapEvents<ring::EventsFile>().signal = memory(8); }},
        {"a stranger's signal", "was made by user 54321",
         [&](auto&) {
             auto& events = MapEvents<ring::EventsFile>();
             EXPECT_EQ(0, ::seteuid(54321));
             events.signal = memory(sizeof(ring::Signal));
             EXPECT_EQ(0, ::seteuid(0));
         }},
        {"an overwritten signal", "is another one",
         [this](auto&) { ++MapSignal<ring::Signal>().nonce; }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        if (std::string(c.name).find("stranger") != std::string::npos && ::geteuid() != 0) {
            continue;  // only root can give files away
        }
        auto server = Make();
        ASSERT_TRUE(Opens());
        c.damage(Events());
        EXPECT_FALSE(Opens());
        const auto fits = [&](auto& text) { return text.find(c.warning) != std::string::npos; };
        EXPECT_TRUE(*c.warning == '\0' ? warnings.empty()
                                       : std::any_of(warnings.begin(), warnings.end(), fits))
            << ::testing::PrintToString(warnings);
        Leave(std::move(server));
        TopicRingServer::RemoveAll(directory_);
        server = Make();
        EXPECT_TRUE(Opens());
        server.reset();
        fs::remove(Events() + ".behind");
    }
    // Each is logged once, however often the ring is opened.
    EXPECT_EQ(warnings.size(), std::set(warnings.begin(), warnings.end()).size());
    log.removeAllAppenders();
    const std::string long_path(ring::kMostPathBytes + 1, '/');
    EXPECT_THROW(Make(long_path.c_str()), std::exception);
    EXPECT_FALSE(TopicRingReader::Open(directory_, long_path));
}

// Both hold anything, at any time. Every call ends, and another topic's users notice nothing.
TEST_F(HostileRingTest, RandomValuesHarmNoProcess) {
    std::mt19937_64 random(4711);
    for (int round = 0; round < 40; ++round) {
        auto server = Make();
        auto reader = TopicRingReader::Open(directory_, "/a");
        auto writer = LocalTopic::Open(directory_, "/a");
        ASSERT_TRUE(reader && writer);
        auto& events =
            MapEvents<std::array<std::atomic<std::uint32_t>, sizeof(ring::EventsFile) / 4>>();
        auto& signal =
            MapSignal<std::array<std::atomic<std::uint32_t>, sizeof(ring::Signal) / 4>>();
        const auto other = Make("/b");
        auto witness = TopicRingReader::Open(directory_, "/b");
        ASSERT_TRUE(witness);
        witness->BeginNow();
        std::vector<std::string> published;
        for (int step = 0; step < 300; ++step) {
            const auto value = static_cast<std::uint32_t>(random() >> random() % 64);
            // Rather often what stands at the front, and a text's length.
            const std::uint64_t place = random();
            events[place % 3 == 0   ? random() % events.size()
                   : place % 3 == 1 ? 121 + random() % 8
                                    : 128 * (1 + random() % 8)] = value;
            signal[place % 2 == 0 ? 0 : 16 + random() % 2] = value;
            switch (random() % 8) {
                case 0:
                    static_cast<void>(server->Publish(std::to_string(random() % 9)));
                    break;
                case 1:
                    static_cast<void>(server->Publish(kNews));
                    server->SetRelayed(place % 2 == 0);
                    break;
                case 2:
                    writer->Notify();
                    static_cast<void>(writer->relayed() || writer->closed());
                    break;
                case 3:
                    reader->BeginAt(std::string(32, "0f"[place % 2]));
                    break;
                case 4:
                    reader->BeginAt(server->Position());
                    break;
                case 5:
                    reader->Sleep(reader->sequence(), std::chrono::milliseconds(place % 2));
                    reader->Wake();
                    break;
                default:
                    static_cast<void>(reader->closed());
                    TakeAll(*reader, 20);
            }
            published.push_back(std::to_string(step % 6));
            EXPECT_TRUE(other->Publish(published.back()));
        }
        EXPECT_EQ(published, TakeAll(*witness));
        server.reset();
        TopicRingServer::RemoveAll(directory_);
    }
}

// A reader that has looked and is then stopped before it sleeps, for any number of events.
TEST_F(HostileRingTest, NoNumberOfEventsLooksLikeNone) {
    auto server = Make();
    auto reader = TopicRingReader::Open(directory_, "/a");
    ASSERT_TRUE(reader);
    for (const int events : {1, 255, 256, 257, 512, 65'536}) {
        const std::uint32_t seen = reader->sequence();
        for (int i = 0; i < events; ++i) {
            ASSERT_TRUE(server->Publish("event"));
        }
        EXPECT_NE(seen, reader->sequence()) << events;
    }
}

// A process that may notify may also store anything in the signal, as fast as it can.
TEST_F(HostileRingTest, AFloodInTheSignalLosesNoEvent) {
    constexpr int kEvents = 900;  // no more than the ring holds
    auto server = Make();
    auto& signal = MapSignal<ring::Signal>();
    std::atomic<bool> stop{false};
    std::thread flood([&] {
        std::mt19937 random(4711);
        while (!stop) {
            signal.sequence.fetch_add(static_cast<std::uint32_t>(random()));
            signal.waiting_at.store(static_cast<std::uint32_t>(random()));
            signal.woken_at.store(signal.waiting_at.load());
        }
    });
    auto reader = TopicRingReader::Open(directory_, "/a");
    ASSERT_TRUE(reader);
    reader->BeginNow();
    std::vector<std::string> published;
    std::vector<std::string> taken;
    const auto take = [&](int most) {
        for (const std::string& event : TakeAll(*reader, most)) {
            taken.push_back(event);
        }
    };
    for (int i = 0; i < kEvents; ++i) {
        published.push_back(std::to_string(i % 7));
        ASSERT_TRUE(server->Publish(published.back()));
        const std::uint32_t seen = reader->sequence();
        take(1);
        reader->Sleep(seen, 1ms);
    }
    stop = true;
    flood.join();
    take(10 * kEvents);
    EXPECT_EQ(published, taken);

    // And when it has ended all is as before.
    reader->ReleaseThread();
    std::atomic<bool> slept{false};
    std::thread sleeper([&] {
        const std::uint32_t seen = reader->sequence();
        while (reader->Take()) {
        }
        slept = true;
        reader->Sleep(seen, kDeadline);
    });
    const auto begin = std::chrono::steady_clock::now();
    const auto writer = LocalTopic::Open(directory_, "/a");
    while (!slept || signal.waiting_at != signal.sequence) {
        std::this_thread::yield();
    }
    writer->Notify();
    sleeper.join();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, kDeadline / 2);
}

}  // namespace
}  // namespace gorm::cor::ps
