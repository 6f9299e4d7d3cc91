// Kills the broker under its clients, at random and at every named step of every request, and
// starts it again: no client ends, all are back in time, every sample in shared memory is read.
#include "kvo/KvoDataTransferFactory.h"
#include "kvo/KvoStatisticsClient.h"
#include "kvo/brokerd/broker.h"
#include "kvo/crash_point.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
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

std::string StreamOf(int number) {
    return "killed/" + std::to_string(number);
}

void Demand(bool holds, const std::string& otherwise) {
    if (!holds) {
        throw std::runtime_error(otherwise);
    }
}

template <class Done>
Clock::duration Await(Clock::duration at_most, const std::string& what, Done done) {
    const auto begin = Clock::now();
    while (!done()) {
        Demand(Clock::now() - begin < at_most, what + " took too long");
        std::this_thread::sleep_for(5ms);  // how often it is looked at
    }
    return Clock::now() - begin;
}

// A part runs in a process of its own, from before anything of the library was used.
template <class Part>
pid_t Start(Part part) {
    const pid_t child = ::fork();
    if (child < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (child == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        try {
            part();
            std::_Exit(0);
        } catch (const std::exception& error) {
            std::cerr << error.what() << std::endl;
            std::_Exit(1);
        }
    }
    return child;
}

void ServeUntilKilled(const std::string& directory, std::uint16_t port) {
    kvo::brokerd::BrokerOptions options;
    options.port = port;
    options.directory = directory;
    options.spare_slots.budget_bytes = 64 << 10;
    // These two come to a broker that is to be told of each sample.
    const std::string_view point = shared->point.data();
    options.local_topics = point.find("NotifyNewData") != 0 && point.find("ReportDataWritten") != 0;
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
    Test(int streams, Clock::duration within) : streams_(streams), within_(within) {
        std::string pattern = "/dev/shm/kvo-broker-kill-XXXXXX";
        Demand(::mkdtemp(pattern.data()) != nullptr, "no directory " + pattern);
        directory_ = pattern;
    }
    void Begin() {
        StartBroker("");
        for (int process = 0; process < kProcesses; ++process) {
            clients_.push_back(Start([&] { RunClients(uri(), process, streams_); }));
        }
        Await(kPatience, "registration", [&] {
            return std::all_of(shared->ready.begin(), shared->ready.end(),
                               [](const auto& ready) { return ready.load() == 1; });
        });
        AwaitAllReading(kPatience);
    }
    Test(const Test&) = delete;
    Test& operator=(const Test&) = delete;
    ~Test() {
        for (const pid_t process : clients_) {
            ::kill(process, SIGKILL);
            ::waitpid(process, nullptr, 0);
        }
        if (broker_ != 0) {
            ::kill(broker_, SIGKILL);
            ::waitpid(broker_, nullptr, 0);
        }
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }

    void KillAtRandom(std::mt19937_64& random) {
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 300));  // the moment
        ::kill(broker_, SIGKILL);
        ::waitpid(broker_, nullptr, 0);
        Return();
    }
    void KillAt(const std::string& point) {
        ::kill(broker_, SIGKILL);
        ::waitpid(broker_, nullptr, 0);
        StartBroker(point);
        Await(kPatience, "death at \"" + point + "\"",
              [&] { return ::waitpid(broker_, nullptr, WNOHANG) == broker_; });
        Return();
    }
    Clock::duration slowest() const { return slowest_; }

    // For longer than a client may be silent: the broker's own pause is charged to nobody. The
    // last thing that happens to the clients, since no process is forked after it.
    void Freeze() {
        ::kill(broker_, SIGSTOP);
        std::this_thread::sleep_for(kFreeze);
        ::kill(broker_, SIGCONT);
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
        for (const pid_t process : std::exchange(clients_, {})) {
            int status = 0;
            Demand(::waitpid(process, &status, 0) == process && status == 0,
                   "a client process failed");
        }
        Await(kPatience, "removal of the files", [&] { return FilesOfStreams() == 0; });
    }

private:
    static std::string uri() { return "wkp.rr://127.0.0.1:" + std::to_string(shared->port.load()); }
    void StartBroker(const std::string& point) {
        const std::uint16_t port = shared->port.exchange(0);
        shared->point.fill('\0');
        point.copy(shared->point.data(), kPointBytes - 1);
        broker_ = Start([&] { ServeUntilKilled(directory_, port); });
        // One that dies at once, at its point, never tells its port.
        Await(kPatience, "start of the broker", [&] {
            return shared->port.load() != 0 ||
                   (!point.empty() && ::kill(broker_, 0) == 0 && Died());
        });
        if (shared->port.load() == 0) {
            shared->port.store(port);
        }
    }
    bool Died() const {
        siginfo_t info{};
        return ::waitid(P_PID, static_cast<id_t>(broker_), &info, WEXITED | WNOHANG | WNOWAIT) ==
                   0 &&
               info.si_pid == broker_;
    }
    void Return() {
        StartBroker("");
        slowest_ = std::max(slowest_, AwaitAllReading(within_));
        for (const pid_t process : clients_) {
            Demand(::waitpid(process, nullptr, WNOHANG) == 0, "a client process has ended");
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
        Clock::duration duration{};
        try {
            duration = Await(at_most, "a new sample everywhere", all_read);
        } catch (const std::exception& error) {
            const auto place = static_cast<std::size_t>(number);
            kvo::KvoStatisticsClient broker(nullptr, uri());
            const auto state = broker.GetStatistics(StreamOf(number));
            throw std::runtime_error(std::string(error.what()) + ": stream " + StreamOf(number) +
                                     " had read " + std::to_string(before[place]) + ", then " +
                                     std::to_string(shared->read[place].load()) +
                                     "; the broker knows " + std::to_string(state.count_value_1) +
                                     " samples, publisher " + std::to_string(state.int_value_2) +
                                     ", subscribers " + std::to_string(state.int_value_1));
        }
        for (number = 0; number < streams_; ++number) {
            Demand(!shared->gap[static_cast<std::size_t>(number)].load(),
                   "samples of stream " + StreamOf(number) + " were missed");
        }
        return duration;
    }
    int FilesOfStreams() const {
        int files = 0;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(directory_)) {
            files += entry.is_regular_file() && entry.path().extension() != ".lock" ? 1 : 0;
        }
        return files;
    }

    const int streams_;
    const Clock::duration within_;
    std::string directory_;
    pid_t broker_ = 0;
    std::vector<pid_t> clients_;
    Clock::duration slowest_{};
};

// Two of each request that clients send when they return, and while all is well.
std::vector<std::string> Points() {
    std::vector<std::string> points;
    for (const char* method : {"SendHeartbeat", "AddPublisher", "NotifyNewData", "AddSubscriber",
                               "GetNotificationPort", "ReportDataWritten"}) {
        points.push_back(std::string(method) + " taken");
        points.push_back(std::string(method) + " done");
    }
    return points;
}

}  // namespace

// Called by the broker of this test at each of its points.
void kvo::HitCrashPoint(const char* name) {
    if (shared != nullptr && std::string_view(name) == shared->point.data()) {
        ::kill(::getpid(), SIGKILL);
    }
}

int main(int argc, char** argv) {
    CLI::App app("Kills the broker under its clients.");
    int kills = 200;
    int streams = kMostStreams;
    double within_s = 3;
    std::uint64_t seed = std::random_device()();
    app.add_option("--kills", kills, "at random moments")->capture_default_str();
    app.add_option("--streams", streams, "each with a publisher and a subscriber")
        ->check(CLI::Range(1, kMostStreams))
        ->capture_default_str();
    app.add_option("--within", within_s, "seconds until all are back")->capture_default_str();
    app.add_option("--seed", seed, "of the moments");
    CLI11_PARSE(app, argc, argv);
    shared = static_cast<Shared*>(
        ::mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const auto seconds = [](Clock::duration d) { return std::chrono::duration<double>(d).count(); };
    try {
        std::mt19937_64 random(seed);
        Test test(streams, std::chrono::duration_cast<Clock::duration>(
                               std::chrono::duration<double>(within_s)));
        test.Begin();
        const auto points = Points();
        for (const std::string& point : points) {
            test.KillAt(point);
        }
        for (int i = 1; i <= kills; ++i) {
            test.KillAtRandom(random);
            if (i % 20 == 0) {
                std::cout << i << " kills, slowest return " << seconds(test.slowest()) << " s"
                          << std::endl;
            }
        }
        test.Freeze();
        test.End();
        std::cout << points.size() << " points, " << kills << " kills, " << streams
                  << " publishers and as many subscribers: all back within "
                  << seconds(test.slowest()) << " s, nothing missed; nobody lost while the broker "
                  << "stood still for " << seconds(kFreeze) << " s; nothing left" << std::endl;
        return 0;
    } catch (const std::exception& error) {
        std::cerr << "kvo-broker-kill-test, seed " << seed << ": " << error.what() << std::endl;
        return 1;
    }
}
