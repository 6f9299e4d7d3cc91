// Kills the broker under its clients, at random and at every named step of every request, and
// starts it again: no client ends, all are back in time, every sample in shared memory is read.
#include "kvo/KvoDataTransferFactory.h"
#include "kvo/KvoStatisticsClient.h"
#include "kvo/brokerd/broker.h"
#include "kvo/os/crash_point.h"
#include "local_topics.h"
#include "processes.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace kvo::stress;
using namespace std::chrono_literals;

constexpr int kProcesses = 4;
constexpr int kMostStreams = 100;
constexpr int kPayload = 64;
constexpr int kRetained = 4096;              // more than are written while a reader waits
constexpr auto kPatience = 30s;              // for what has no time of its own
constexpr std::chrono::seconds kFreeze{12};  // above the heartbeat time-out
constexpr std::size_t kPointBytes = 64;
constexpr std::uint64_t kNew = 5;  // samples, a tenth of a second

// What all processes see; each field has one writer.
struct Shared {
    std::array<std::atomic<std::uint64_t>, kMostStreams> read;  // subscriber: newest sequence
    std::array<std::atomic<bool>, kMostStreams> gap;            // subscriber: one was missed
    std::array<std::atomic<int>, kProcesses> ready;             // client process: all registered
    std::atomic<bool> stop;                                     // parent: write no more
    std::atomic<std::uint16_t> port;                            // broker process
    std::array<char, kPointBytes> point;  // parent, before the broker starts: where it dies
};

Shared* shared = nullptr;

Shared& SharedIn(const std::string& directory) {
    return Share<Shared>(directory + "/shared");
}
std::string BrokersPlace(const std::string& directory) {
    return directory + "/broker";
}
std::string StreamOf(int number) {
    return "killed/" + std::to_string(number);
}

void ServeUntilKilled(const std::string& directory, std::uint16_t port) {
    kvo::brokerd::BrokerOptions options;
    options.port = port;
    options.directory = directory;
    options.spare_slots.budget_bytes = 64 << 10;
    // These two come to a broker that is to be told of each sample.
    const std::string_view point = shared->point.data();
    options.local_topics = kvo::test::LocalTopics(true) && point.find("NotifyNewData") != 0 &&
                           point.find("ReportDataWritten") != 0;
    const kvo::brokerd::Broker broker(options, nullptr);
    shared->port.store(broker.port());
    for (;;) {
        ::pause();
    }
}

class Client {
public:
    Client(const std::string& uri, int number)
        : publisher_(kvo::KvoDataTransferFactory::CreatePublisher(nullptr)),
          subscriber_(kvo::KvoDataTransferFactory::CreateSubscriber(nullptr)) {
        publisher_->SetBufferSize(kPayload, kRetained);
        Demand(publisher_->RegisterPublisher(uri, StreamOf(number), false) == 1, "no publisher");
        Demand(subscriber_->RegisterSubscriber(uri, StreamOf(number), "", 1) == 1, "no subscriber");
        subscriber_->connect([this, number] { Read(static_cast<std::size_t>(number)); });
    }
    void Write() {
        publisher_->WriteData(0, payload_, {});
        publisher_->PublishData();
    }

private:
    void Read(std::size_t number) {
        while (const kvo::DataSample* sample = subscriber_->ReadData()) {
            const std::uint64_t before = shared->read[number].load();
            if (sample->sequence_number() != before + 1) {
                shared->gap[number].store(true);
            }
            shared->read[number].store(sample->sequence_number());
        }
    }

    const std::vector<unsigned char> payload_ = std::vector<unsigned char>(kPayload);
    std::unique_ptr<kvo::KvoDataPublisher> publisher_;
    std::unique_ptr<kvo::KvoDataSubscriber> subscriber_;
};

void RunClients(const std::string& uri, int process, int streams) {
    std::vector<std::unique_ptr<Client>> clients;
    for (int number = process; number < streams; number += kProcesses) {
        clients.push_back(std::make_unique<Client>(uri, number));
    }
    shared->ready[static_cast<std::size_t>(process)].store(1);
    while (!shared->stop.load()) {
        for (const auto& client : clients) {
            client->Write();
        }
        std::this_thread::sleep_for(20ms);  // fifty samples a second
    }
}

class Test {
public:
    Test(const KillOptions& options, int streams, Clock::duration within)
        : options_(options), streams_(streams), within_(within) {
        shared = &SharedIn(scratch_.path());
    }
    void Run() {
        Begin();
        const auto seconds = [](Clock::duration d) {
            return std::chrono::duration<double>(d).count();
        };
        const auto begin = Clock::now();
        // Each request that clients send when they return, and while all is well.
        int points = 0;
        for (const char* method : {"SendHeartbeat", "AddPublisher", "NotifyNewData",
                                   "AddSubscriber", "GetNotificationPort", "ReportDataWritten"}) {
            for (const char* step : {" taken", " done"}) {
                KillAt(std::string(method) + step);
                ++points;
            }
        }
        std::mt19937_64 random(options_.seed);
        std::uint64_t kills = 0;
        while (!options_.Over(kills, begin)) {
            KillAtRandom(random);
            if (++kills % 20 == 0) {
                std::cout << kills << " kills, slowest return " << seconds(slowest_) << " s"
                          << std::endl;
            }
        }
        Freeze();
        End();
        std::cout << points << " points, " << kills << " kills, " << streams_
                  << " publishers and as many subscribers: all back within " << seconds(slowest_)
                  << " s, nothing missed; nobody lost while the broker stood still for "
                  << seconds(kFreeze) << " s; nothing left" << std::endl;
    }

private:
    void Begin() {
        StartBroker("");
        for (int process = 0; process < kProcesses; ++process) {
            clients_.push_back(std::make_unique<Process>(Arguments{"clients", scratch_.path(),
                                                                   uri(), std::to_string(process),
                                                                   std::to_string(streams_)}));
        }
        Await(kPatience, "registration", [&] {
            return std::all_of(shared->ready.begin(), shared->ready.end(),
                               [](const auto& ready) { return ready.load() == 1; });
        });
        AwaitAllReading(kPatience);
    }
    void KillAtRandom(std::mt19937_64& random) {
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 300));  // the moment
        broker_->Kill();
        Return();
    }
    void KillAt(const std::string& point) {
        broker_->Kill();
        StartBroker(point);
        Await(kPatience, "death at \"" + point + "\"", [&] { return broker_->HasEnded(); });
        Return();
    }

    // For longer than a client may be silent: the broker's own pause is charged to nobody.
    void Freeze() {
        broker_->Signal(SIGSTOP);
        std::this_thread::sleep_for(kFreeze);
        broker_->Signal(SIGCONT);
        AwaitAllReading(kPatience);
        kvo::KvoStatisticsClient broker(nullptr, uri());
        Demand(broker.GetRegisteredStreams().size() == static_cast<std::size_t>(streams_),
               "publishers were taken for gone");
        for (int number = 0; number < streams_; ++number) {
            Demand(broker.GetStatistics(StreamOf(number)).int_value_1 == 1,
                   "the subscriber of stream " + StreamOf(number) + " was taken for gone");
        }
    }

    // All clients end orderly, and then the broker: nothing is left.
    void End() {
        shared->stop.store(true);
        for (const auto& process : clients_) {
            Demand(process->Await() == 0, "a client process failed");
        }
        Await(kPatience, "removal of the files", [&] { return FilesOfStreams() == 0; });
    }

    static std::string uri() { return "wkp.rr://127.0.0.1:" + std::to_string(shared->port.load()); }
    void StartBroker(const std::string& point) {
        const std::uint16_t port = shared->port.exchange(0);
        shared->point.fill('\0');
        point.copy(shared->point.data(), kPointBytes - 1);
        broker_ =
            std::make_unique<Process>(Arguments{"broker", scratch_.path(), std::to_string(port)});
        // One that dies at once, at its point, never tells its port.
        Await(kPatience, "start of the broker",
              [&] { return shared->port.load() != 0 || (!point.empty() && broker_->HasEnded()); });
        if (shared->port.load() == 0) {
            shared->port.store(port);
        }
    }
    void Return() {
        StartBroker("");
        slowest_ = std::max(slowest_, AwaitAllReading(within_));
        for (const auto& process : clients_) {
            Demand(!process->HasEnded(), "a client process has ended");
        }
    }
    // Until every subscriber has got samples that were written after now: more than one, since one
    // may have waited for the broker's return.
    Clock::duration AwaitAllReading(Clock::duration at_most) {
        std::vector<std::uint64_t> before;
        for (int number = 0; number < streams_; ++number) {
            before.push_back(shared->read[static_cast<std::size_t>(number)].load());
        }
        int number = 0;
        const auto all_read = [&] {
            while (number < streams_ && shared->read[static_cast<std::size_t>(number)].load() >=
                                            before[static_cast<std::size_t>(number)] + kNew) {
                ++number;
            }
            return number == streams_;
        };
        const Clock::duration duration = Await(at_most, "a new sample everywhere", all_read);
        for (number = 0; number < streams_; ++number) {
            Demand(!shared->gap[static_cast<std::size_t>(number)].load(),
                   "samples of stream " + StreamOf(number) + " were missed");
        }
        return duration;
    }
    int FilesOfStreams() const {
        int files = 0;
        for (const auto& entry :
             std::filesystem::recursive_directory_iterator(BrokersPlace(scratch_.path()))) {
            files += entry.is_regular_file() && entry.path().extension() != ".lock" ? 1 : 0;
        }
        return files;
    }

    const KillOptions options_;
    const int streams_;
    const Clock::duration within_;
    const kvo::test::TempDirectory scratch_;
    std::unique_ptr<Process> broker_;
    std::vector<std::unique_ptr<Process>> clients_;
    Clock::duration slowest_{};
};

}  // namespace

// Called by the broker of this test at each of its points.
void kvo::HitCrashPoint(const char* name) {
    if (shared != nullptr && std::string_view(name) == shared->point.data()) {
        ::kill(::getpid(), SIGKILL);
    }
}

int main(int argc, char** argv) {
    CLI::App app("Kills the broker under its clients.", "kvo-broker-kill-test");
    KillOptions options{200};
    int streams = kMostStreams;
    double within_s = 3;
    app.add_option("--streams", streams, "each with a publisher and a subscriber")
        ->check(CLI::Range(1, kMostStreams))
        ->capture_default_str();
    app.add_option("--within", within_s, "seconds until all are back")->capture_default_str();
    const Roles roles{
        {"broker",
         [](const Arguments& arguments) {
             shared = &SharedIn(arguments.at(0));
             ServeUntilKilled(BrokersPlace(arguments.at(0)),
                              static_cast<std::uint16_t>(std::stoul(arguments.at(1))));
         }},
        {"clients", [](const Arguments& arguments) {
             shared = &SharedIn(arguments.at(0));
             RunClients(arguments.at(1), std::stoi(arguments.at(2)), std::stoi(arguments.at(3)));
         }}};
    return Run(argc, argv, app, options, roles, [&] {
        Test test(
            options, streams,
            std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(within_s)));
        test.Run();
    });
}
