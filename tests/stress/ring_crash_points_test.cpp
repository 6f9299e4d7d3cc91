// Every named point of a local topic, hit once with SIGKILL and once with SIGSTOP: a process that
// dies or is stopped there keeps no event from the others, and leaves nothing.
#include "crash_points.h"
#include "gorm/cor/ps/local_topic.h"
#include "gorm/cor/ps/publisher.h"
#include "local/runtime_directory.h"
#include "local/topic_ring_memory.h"
#include "local/topic_ring_reader.h"
#include "local/topic_ring_server.h"
#include "ps/wkp_topic_reader.h"
#include "transport/address.h"
#include "transport/context.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <sys/shm.h>
#include <thread>
#include <utility>
#include <vector>

namespace {

using namespace kvo::stress;
using namespace std::chrono_literals;
using namespace gorm::cor;
using ps::TopicRingReader;
using ps::TopicRingServer;
namespace fs = std::filesystem;

constexpr const char* kTopic = "/crash/points";
constexpr const char* kNews = "news";        // the notification
constexpr const char* kClosing = "closing";  // the last event of a server that is followed
constexpr const char* kFirst = "first";      // of the other
constexpr const char* kLast = "last";
constexpr int kDigits = 5;
constexpr int kFeeds = 20;
constexpr auto kPatience = 20s;  // for what has no time of its own
// Far below the second after which a reader looks by itself.
constexpr auto kBound = 500ms;

struct Shared {
    std::atomic<std::uint16_t> port;  // the encounter, before the process starts
    std::atomic<int> heard;           // news, by the subscriber of the encounter
    std::atomic<bool> followed;       // the server has a successor
    std::atomic<bool> listens;        // the reader of the process
};

/// A publisher of the topic, as a broker is one.
class Server {
public:
    explicit Server(const std::string& directory, std::uint16_t port = 0) {
        Serving serving;
        serving.runtime_directory = directory + "/run";
        serving.topic_directory = directory + "/topics";
        publisher_.emplace(loop_, network::uri("wkp.ps://127.0.0.1:" + std::to_string(port) + "/"),
                           serving);
        Demand(publisher_->serves_local(), "no local topics");
    }
    std::uint16_t port() const { return publisher_->port(); }
    void Open() {
        loop_.Run([&] { publisher_->OpenLocal(kTopic, kNews); });
    }
    void Close() {
        loop_.Run([&] { publisher_->CloseLocal(kTopic); });
    }
    void Publish(const std::string& sample) {
        loop_.Run([&] { publisher_->Publish(kTopic, sample); });
    }

private:
    ServiceLoop loop_;
    std::optional<ps::Publisher> publisher_;
};

class TextCodec final : public ps::SampleCodec {
public:
    std::shared_ptr<void> Create() const override { return std::make_shared<std::string>(); }
    Decoded Decode(std::string_view bytes) const override {
        return {std::make_shared<std::string>(bytes), ps::InstanceEvent::kUpdated};
    }
    std::string Encode(const void* sample, ps::InstanceEvent) const override {
        return *static_cast<const std::string*>(sample);
    }
    std::string_view Key(const void*) const override { return {}; }
};

/// A subscriber as applications have one.
class Subscriber {
public:
    /// @param data what the news are about, stored before they are told.
    Subscriber(std::uint16_t port, const std::atomic<int>& data)
        : data_(data),
          reader_(
              transport_context(),
              Address::ToConnect(
                  network::uri("wkp.ps://127.0.0.1:" + std::to_string(port) + kTopic), "wkp.ps"),
              std::make_shared<TextCodec>()),
          registration_(reader_.Listen([this](const ps::SampleCodec::Decoded& event) {
              const auto& text = *std::static_pointer_cast<const std::string>(event.sample);
              if (text == kNews) {
                  seen_ = data_.load();
                  ++news_;
              } else {
                  const std::lock_guard lock(mutex_);
                  events_.push_back(text);
              }
          })) {}
    int seen() const { return seen_; }
    int news() const { return news_; }
    std::vector<std::string> events() const {
        const std::lock_guard lock(mutex_);
        return events_;
    }
    bool Has(const std::string& event) const {
        const auto all = events();
        return !all.empty() && all.back() == event;
    }

private:
    const std::atomic<int>& data_;
    std::atomic<int> seen_ = 0;
    std::atomic<int> news_ = 0;
    mutable std::mutex mutex_;
    std::vector<std::string> events_;  // under the mutex
    ps::WkpTopicReader reader_;
    rr::ListenerRegistration registration_;
};

void UseDirectory(const std::string& directory) {
    Demand(::setenv(kRuntimeDirectoryVariable, (directory + "/run").c_str(), 1) == 0, "no room");
}

Shared& SharedIn(const std::string& directory) {
    return Share<Shared>(directory + "/shared");
}

// ---- What the processes do that are stopped on their way

void BeServer(const std::string& directory) {
    UseDirectory(directory);
    Server server(directory, SharedIn(directory).port);
    for (int i = 0; i < kDigits; ++i) {
        server.Open();
        server.Publish(std::to_string(i));
        server.Publish(kNews);
        server.Publish("again");
        server.Close();
    }
    server.Open();
}

void BeWriter(const std::string& directory) {
    UseDirectory(directory);
    Shared& shared = SharedIn(directory);
    const auto topic = ps::LocalTopic::Find("127.0.0.1", shared.port, kTopic);
    Demand(topic != nullptr, "no topic");
    for (int i = 0; i < kDigits; ++i) {
        const int before = shared.heard;
        topic->Notify();
        Await(kPatience, "the news", [&] { return shared.heard > before; });
        std::this_thread::sleep_for(2ms);  // so that the subscriber sleeps again
    }
}

void BeReader(const std::string& directory) {
    UseDirectory(directory);
    Shared& shared = SharedIn(directory);
    const Subscriber subscriber(shared.port, shared.heard);
    shared.listens = true;
    Await(kPatience, "the last event", [&] { return subscriber.Has(kLast); });
    // One that had been there before has heard the first server to its end and the second from its
    // beginning.
    const auto events = subscriber.events();
    const auto change = std::find(events.begin(), events.end(), kFirst);
    Demand(!shared.followed || events.front() == kFirst || events.front() == kLast ||
               (change != events.end() && *std::prev(change) == kClosing),
           "events were lost when the server changed");
}

// ---- The others

class TopicEncounter final : public Encounter {
public:
    TopicEncounter(std::string role, const std::string& directory)
        : role_(std::move(role)), directory_(directory), shared_(SharedIn(directory)) {
        UseDirectory(directory);
        fs::create_directory(directory_ + "/run");
        server_ = std::make_unique<Server>(directory_);
        shared_.port = server_->port();
        server_->Open();
        writer_ = ps::LocalTopic::Find("127.0.0.1", shared_.port, kTopic);
        Demand(writer_ != nullptr, "no topic");
        subscriber_ = std::make_unique<Subscriber>(shared_.port, data_);
        if (role_ == "server") {
            LeaveRing();
        }
    }

    void Feed() override {
        shared_.heard = subscriber_->news();
        if (role_ != "reader" || !shared_.listens) {
            return;
        }
        if (++feeds_ < kFeeds) {
            DemandTold();
            DemandEvent();
        } else {
            server_->Publish(kLast);  // for a later subscriber, again and again
        }
    }

    void CheckOthers(int signal) override {
        if (role_ != "server") {
            DemandTold();
            DemandEvent();
            if (role_ == "reader" && signal == SIGSTOP && feeds_ < kFeeds) {
                // Closed after what it has still to be told of, and with a successor.
                server_->Publish(kClosing);
                server_.reset();
                shared_.followed = true;
                server_ = std::make_unique<Server>(directory_, shared_.port);
                server_->Open();
                server_->Publish(kFirst);
                feeds_ = kFeeds;
            }
        } else if (signal == SIGKILL) {
            server_ = std::make_unique<Server>(directory_, shared_.port);
            server_->Open();
            Demand(dead_->closed(), "a dead server's ring is still open");
            auto reader = TopicRingReader::Open(directory_ + "/topics", kTopic);
            Demand(reader.has_value(), "the successor's ring cannot be read");
            writer_ = ps::LocalTopic::Find("127.0.0.1", shared_.port, kTopic);
            Demand(writer_ != nullptr, "the successor's ring cannot be written");
            // The subscriber moves by itself, which may take a second.
            server_->Publish(kLast);
            Await(kPatience, "the move to the successor", [&] { return subscriber_->Has(kLast); });
        } else if (const auto topic = ps::LocalTopic::Find("127.0.0.1", shared_.port, kTopic)) {
            // What there is of the stopped one can be used.
            auto reader = TopicRingReader::Open(directory_ + "/topics", kTopic);
            Demand(reader.has_value(), "there is a writer, but no reader");
            if (!topic->closed()) {
                reader->BeginNow();
                while (reader->Take()) {
                }
                const std::uint32_t seen = reader->sequence();
                topic->Notify();
                const auto begin = Clock::now();
                reader->Sleep(seen, 1s);
                Demand(reader->Take() == kNews && Clock::now() - begin < kBound,
                       "news do not come while the server stands still");
            }
        }
    }

    void CheckEnd(int) override {
        subscriber_.reset();
        writer_.reset();
        server_.reset();
        Demand(!fs::exists(directory_ + "/topics"), "the topics' directory is left");
        Demand(::shmget(ps::SignalKey(directory_ + "/topics"), 0, 0) < 0, "a signal is left");
        for (const auto& left : fs::directory_iterator(directory_ + "/run")) {
            Demand(false, "left behind: " + left.path().string());
        }
    }

private:
    // As a server that was killed does, with a reader that still has it open.
    void LeaveRing() {
        server_.reset();
        const std::string topics = directory_ + "/topics";
        fs::create_directory(topics);
        static auto& left = *new std::vector<std::unique_ptr<TopicRingServer>>;  // to the end
        left.push_back(TopicRingServer::Make(topics, kTopic, kNews, {}));
        dead_ = TopicRingReader::Open(topics, kTopic);
        Demand(dead_.has_value(), "no ring to leave");
    }
    void DemandTold() {
        const auto begin = Clock::now();
        const int number = ++data_;
        writer_->Notify();
        Await(kPatience, "news", [&] { return subscriber_->seen() >= number; });
        Demand(Clock::now() - begin < kBound, "news came late");
    }
    void DemandEvent() {
        const auto begin = Clock::now();
        const auto before = subscriber_->events();
        const std::string event = std::to_string(before.size() % kDigits);
        server_->Publish(event);
        Await(kPatience, "an event", [&] { return subscriber_->events().size() > before.size(); });
        Demand(Clock::now() - begin < kBound, "an event came late");
        Demand(subscriber_->events().size() == before.size() + 1 && subscriber_->Has(event),
               "another event came");
    }

    const std::string role_;
    const std::string directory_;
    Shared& shared_;
    int feeds_ = 0;
    std::atomic<int> data_ = 0;
    std::optional<TopicRingReader> dead_;
    std::unique_ptr<Server> server_;
    std::unique_ptr<ps::LocalTopic> writer_;
    std::unique_ptr<Subscriber> subscriber_;
};

}  // namespace

int main(int argc, char** argv) {
    return RunCrashPoints(argc, argv,
                          {{{"server", BeServer}, {"writer", BeWriter}, {"reader", BeReader}},
                           [](const std::string& role, const std::string& directory) {
                               return std::make_unique<TopicEncounter>(role, directory);
                           },
                           20});
}
