// The server, the writers and the readers of a local topic, killed, stopped and restarted at random
// moments. In between there are pauses in which nothing is published: each running reader must
// then have been woken for all that was, long before it would look by itself.
#include "gorm/cor/ps/local_topic.h"
#include "local/topic_ring_reader.h"
#include "local/topic_ring_server.h"
#include "processes.h"

#include <CLI/CLI.hpp>

#include <array>
#include <atomic>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using namespace kvo::stress;
using namespace std::chrono_literals;
using gorm::cor::ps::LocalTopic;
using gorm::cor::ps::TopicRingReader;
using gorm::cor::ps::TopicRingServer;

constexpr std::size_t kReaders = 6;
constexpr std::size_t kWriters = 3;
constexpr const char* kTopic = "/kill/test";
constexpr const char* kNews = "news";  // the notification
// A ring holds few different samples. Those of one server are its number and one of these digits.
constexpr std::uint64_t kDigits = 7;
constexpr std::uint64_t kRingEvents = 1024;
constexpr auto kRingCheck = 1s;    // when a reader looks by itself
constexpr auto kBound = 500ms;     // within which a running reader is told; wide: machines are busy
constexpr auto kPatience = 30s;    // for what has no time of its own
constexpr std::uint32_t kEnd = 1;  // a phase; 0 and other even ones: pause

// How many events of which server: comparable, a later server's are more.
struct Place {
    std::uint64_t packed = 0;
    Place() = default;
    explicit Place(std::uint64_t value) : packed(value) {}
    Place(std::uint64_t server, std::uint64_t events) : packed(server << 32 | events) {}
    std::uint64_t server() const { return packed >> 32; }
    std::uint64_t events() const { return packed & 0xFFFFFFFF; }
};

// What all processes see. Each field has one writer, but for a process and its successor.
struct Shared {
    std::atomic<std::uint32_t> phase;   // driver
    std::atomic<std::uint64_t> floods;  // driver: how often the server was to overrun its readers
    std::atomic<std::uint64_t> deaths;  // driver: of writers
    struct {
        std::atomic<std::uint64_t> number;     // of the server
        std::atomic<std::uint64_t> entering;   // Place, before an event is published
        std::atomic<std::uint64_t> published;  // and after that
        std::atomic<std::uint64_t> told;       // deaths
        std::atomic<std::uint64_t> flooded;
        std::atomic<std::uint32_t> idle;  // the phase in which it pauses
    } server;
    struct Writer {
        std::atomic<std::uint64_t> written;  // before subscribers are told
        std::atomic<std::uint64_t> told;     // and after that
        std::atomic<std::uint32_t> idle;
    };
    std::array<Writer, kWriters> writers;
    struct Reader {
        std::array<std::atomic<std::uint64_t>, kWriters> heard;
        std::atomic<std::uint64_t> place;
        std::atomic<bool> reads;  // since it was started
        std::atomic<std::uint64_t> overruns;
    };
    std::array<Reader, kReaders> readers;
};

std::string RingIn(const std::string& directory) {
    return directory + "/ring";
}
Shared& SharedIn(const std::string& directory) {
    return Share<Shared>(directory + "/shared");
}

void Pause(std::mt19937_64& random, int most_us) {
    std::this_thread::sleep_for(
        std::chrono::microseconds(random() % static_cast<unsigned>(most_us)));
}

// ---- The server

class Server {
public:
    Server(const std::string& directory, Shared& shared)
        : shared_(shared), number_(shared.server.number.load() + 1) {
        shared_.server.number.store(number_);
        TopicRingServer::RemoveAll(directory);
        ring_ = TopicRingServer::Make(directory, kTopic, kNews, {});
        Publish();
    }
    void Run() {
        std::mt19937_64 random(static_cast<std::uint64_t>(::getpid()));
        for (;;) {
            const std::uint32_t phase = shared_.phase.load();
            // As a broker tells that a publisher is dead, whatever else it does.
            const std::uint64_t deaths = shared_.deaths.load();
            if (shared_.server.told.load() != deaths) {
                Publish();
                shared_.server.told.store(deaths);
            } else if (phase == kEnd) {
                return;
            } else if (phase % 2 == 0) {
                shared_.server.idle.store(phase);
            } else if (shared_.server.flooded.load() != shared_.floods.load()) {
                for (std::uint64_t i = 0; i < kRingEvents * 3 / 2; ++i) {
                    Publish();
                }
                shared_.server.flooded.store(shared_.floods.load());
            } else if (random() % 4 == 0) {
                Demand(ring_->Publish(kNews), "the ring takes no notification");
            } else {
                Publish();
            }
            Pause(random, 300);
        }
    }

private:
    void Publish() {
        const std::string sample =
            std::to_string(number_) + " " + std::to_string(events_ % kDigits);
        shared_.server.entering.store(Place(number_, ++events_).packed);
        Demand(ring_->Publish(sample), "the ring takes no event");
        shared_.server.published.store(Place(number_, events_).packed);
    }

    Shared& shared_;
    const std::uint64_t number_;
    std::uint64_t events_ = 0;
    std::unique_ptr<TopicRingServer> ring_;
};

// ---- A writer

void Write(const std::string& directory, Shared& shared, Shared::Writer& own) {
    std::mt19937_64 random(static_cast<std::uint64_t>(::getpid()));
    std::unique_ptr<LocalTopic> topic;
    std::uint64_t number = own.written.load();
    for (;;) {
        const std::uint32_t phase = shared.phase.load();
        if (phase == kEnd) {
            return;
        }
        if (phase % 2 == 0) {
            own.idle.store(phase);
        } else if (topic == nullptr || topic->closed()) {
            topic = LocalTopic::Open(directory, kTopic);
        } else {
            own.written.store(++number);
            topic->Notify();
            // Closed in the meantime: there may have been no reader any more.
            if (!topic->closed()) {
                own.told.store(number);
            }
        }
        Pause(random, 200);
    }
}

// ---- A reader

class Reader {
public:
    Reader(const std::string& directory, Shared& shared, Shared::Reader& own)
        : directory_(directory), shared_(shared), own_(own) {}

    void Run() {
        while (shared_.phase.load() != kEnd) {
            opened_ = shared_.server.number.load();
            auto ring = TopicRingReader::Open(directory_, kTopic);
            if (ring && !ring->closed()) {
                ring->BeginAt("");  // of another ring: from its start
                place_ = Place();
                since_jump_ = 0;
                exact_ = true;
                last_digit_ = kDigits - 1;
                LookAtWritten();
                own_.reads.store(true);
                ReadToTheEnd(*ring);
            }
            std::this_thread::sleep_for(200us);
        }
    }

private:
    void ReadToTheEnd(TopicRingReader& ring) {
        for (;;) {
            const std::uint32_t seen = ring.sequence();
            const bool closed = ring.closed();
            const Place published(shared_.server.published.load());
            if (const auto sample = ring.Take()) {
                if (*sample == kNews) {
                    LookAtWritten();
                    MayBeOverrun();
                } else {
                    TakeEvent(*sample);
                }
                continue;
            }
            HaveAll(published);
            if (closed) {
                return;
            }
            ring.Sleep(seen, kRingCheck);
        }
    }

    void LookAtWritten() {
        for (std::size_t i = 0; i < kWriters; ++i) {
            own_.heard[i].store(shared_.writers[i].written.load());
        }
    }

    // An overrun is told as news; more than the ring holds must be missing then.
    void MayBeOverrun() {
        const Place entering(shared_.server.entering.load());
        const std::uint64_t server = place_.server() != 0 ? place_.server() : opened_;
        if (entering.server() != server || entering.events() - place_.events() > kRingEvents) {
            any_digit_ = true;
            exact_ = false;
        }
    }

    void TakeEvent(std::string_view sample) {
        std::uint64_t server = 0;
        std::uint64_t digit = 0;
        const char* const end = sample.data() + sample.size();
        const auto space = std::from_chars(sample.data(), end, server).ptr;
        Demand(space + 1 < end && std::from_chars(space + 1, end, digit).ptr == end,
               "an event of another kind: " + std::string(sample));
        Demand(place_.server() == 0 || server == place_.server(),
               "an event of another server in the ring");
        Demand(any_digit_ || digit == (last_digit_ + 1) % kDigits,
               "event " + std::string(sample) + " came after " + std::to_string(last_digit_) +
                   ", at " + std::to_string(place_.events()));
        if (digit != (last_digit_ + 1) % kDigits) {
            since_jump_ = 0;
        }
        ++since_jump_;
        any_digit_ = false;
        last_digit_ = digit;
        place_ = Place(server, place_.events() + 1);
        if (exact_) {
            own_.place.store(place_.packed);
        }
    }

    // The ring was found empty after so much had been published.
    void HaveAll(Place published) {
        if (published.server() != place_.server()) {
            return;
        }
        if (!exact_) {
            // Before it looked there were `published`, and then perhaps some more.
            const std::uint64_t more =
                (last_digit_ + 1 + kDigits - published.events() % kDigits) % kDigits;
            const Place found(place_.server(), published.events() + more);
            Demand(found.packed <= shared_.server.entering.load(),
                   "after an overrun event " + std::to_string(last_digit_) + " came last");
            if (place_.events() != found.events()) {
                // One may be overwritten just when it is looked at.
                Demand(since_jump_ >= kRingEvents - 1,
                       "after an overrun only " + std::to_string(since_jump_) + " events came");
                own_.overruns.fetch_add(1);
            }
            place_ = found;
            exact_ = true;
        }
        Demand(place_.packed >= published.packed, "of " + std::to_string(published.events()) +
                                                      " events only " +
                                                      std::to_string(place_.events()) + " came");
        own_.place.store(place_.packed);
    }

    const std::string directory_;
    Shared& shared_;
    Shared::Reader& own_;
    std::uint64_t opened_ = 0;  // the server before the ring was opened: probably its own
    Place place_;               // what has been taken of the present ring
    bool exact_ = true;         // else after an overrun: events() counts too few
    bool any_digit_ = false;
    std::uint64_t since_jump_ = 0;  // events after the last digit that did not follow
    std::uint64_t last_digit_ = 0;
};

// ---- The driver

struct Victim {
    Arguments arguments;
    std::unique_ptr<Process> process = nullptr;
    bool stopped = false;

    void Start() { process = std::make_unique<Process>(arguments); }
};

class KillLoop {
public:
    KillLoop(const KillOptions& options, const std::string& directory)
        : options_(options),
          ring_(RingIn(directory)),
          shared_(SharedIn(directory)),
          random_(options.seed) {
        std::filesystem::create_directory(ring_);
        victims_.push_back({{"server", directory}});
        for (std::size_t i = 0; i < kWriters; ++i) {
            victims_.push_back({{"writer", directory, std::to_string(i)}});
        }
        for (std::size_t i = 0; i < kReaders; ++i) {
            victims_.push_back({{"reader", directory, std::to_string(i)}});
        }
        phase_ = 2;
        shared_.phase.store(phase_);
        for (Victim& victim : victims_) {
            victim.Start();
        }
    }

    void Run() {
        const auto begin = Clock::now();
        auto next_report = begin + 10s;
        for (; !options_.Over(kills_, begin); ++rounds_) {
            if (rounds_ % 10 == 0) {
                shared_.floods.fetch_add(1);
            }
            shared_.phase.store(++phase_);
            for (std::uint64_t strikes = random_() % 4; strikes < 4; ++strikes) {
                Pause(random_, 2000);
                Strike(random_() % victims_.size());
            }
            shared_.phase.store(++phase_);
            CheckPause();
            if (Clock::now() >= next_report) {
                Report(begin);
                next_report += 10s;
            }
        }
        End();
        Report(begin);
        Demand(overruns() != 0, "no reader was overrun: this tested too little");
    }

private:
    Victim& server() { return victims_[0]; }
    Victim& writer(std::size_t i) { return victims_[1 + i]; }
    Victim& reader(std::size_t i) { return victims_[1 + kWriters + i]; }

    void Strike(std::size_t target) {
        Victim& victim = victims_[target];
        const std::uint64_t way = random_() % 4;
        if (victim.stopped && way < 3) {
            victim.process->Signal(SIGCONT);
            victim.stopped = false;
        } else if (!victim.stopped && way < 2) {
            victim.process->Signal(SIGSTOP);
            victim.stopped = true;
            ++stops_;
        } else {
            victim.process->Kill();
            victim.stopped = false;
            ++kills_;
            if (target >= 1 && target <= kWriters) {
                shared_.deaths.fetch_add(1);
            } else if (target > kWriters) {
                shared_.readers[target - 1 - kWriters].reads.store(false);
            }
            victim.Start();
        }
    }

    void CheckPause() {
        const auto idle = [this](const std::atomic<std::uint32_t>& at) {
            return at.load() == phase_;
        };
        Await(kPatience, "the pause of the writers", [&] {
            bool all = server().stopped || (idle(shared_.server.idle) &&
                                            shared_.server.told.load() == shared_.deaths.load());
            for (std::size_t i = 0; i < kWriters; ++i) {
                all = all && (writer(i).stopped || idle(shared_.writers[i].idle));
            }
            for (std::size_t i = 0; i < kReaders; ++i) {
                // A ring to read from there is only when the server has come so far.
                all = all && (reader(i).stopped || server().stopped || shared_.readers[i].reads);
            }
            return all;
        });
        const auto begin = Clock::now();
        for (std::size_t i = 0; i < kReaders; ++i) {
            while (!reader(i).stopped && !Missing(i).empty()) {
                Demand(Clock::now() - begin < kBound,
                       "reader " + std::to_string(i) + " sleeps: " + Missing(i));
                for (Victim& victim : victims_) {
                    Demand(!victim.process->HasEnded(), "a " + victim.arguments[0] + " has ended");
                }
                std::this_thread::sleep_for(100us);
            }
        }
        slowest_ = std::max(slowest_, Clock::now() - begin);
    }

    // What the reader has still not been told of; empty: nothing.
    std::string Missing(std::size_t i) {
        const Shared::Reader& own = shared_.readers[i];
        if (!own.reads) {
            return {};
        }
        for (std::size_t j = 0; j < kWriters; ++j) {
            const std::uint64_t told = shared_.writers[j].told.load();
            if (own.heard[j].load() < told) {
                return "writer " + std::to_string(j) + " has told of " + std::to_string(told) +
                       ", it knows of " + std::to_string(own.heard[j].load());
            }
        }
        const Place published(shared_.server.published.load());
        const Place place(own.place.load());
        if (!server().stopped && place.packed != published.packed) {
            return "server " + std::to_string(published.server()) + " has published " +
                   std::to_string(published.events()) + " events, it knows of " +
                   std::to_string(place.events()) + " of server " + std::to_string(place.server());
        }
        return {};
    }

    // Each process ends by itself, and nothing is left.
    void End() {
        for (Victim& victim : victims_) {
            victim.process->Signal(SIGCONT);
        }
        shared_.phase.store(kEnd);
        for (Victim& victim : victims_) {
            Await(kPatience, "the end of a " + victim.arguments[0],
                  [&] { return victim.process->HasEnded(); });
            Demand(victim.process->Await() == 0, "a " + victim.arguments[0] + " failed");
        }
        for (const auto& left : std::filesystem::directory_iterator(ring_)) {
            Demand(false, "left behind: " + left.path().string());
        }
    }

    std::uint64_t overruns() const {
        std::uint64_t sum = 0;
        for (const Shared::Reader& reader : shared_.readers) {
            sum += reader.overruns.load();
        }
        return sum;
    }

    void Report(Clock::time_point begin) const {
        std::uint64_t told = 0;
        for (const Shared::Writer& writer : shared_.writers) {
            told += writer.told.load();
        }
        const auto ms = [](Clock::duration d) {
            return std::chrono::duration<double, std::milli>(d).count();
        };
        std::cout << kills_ << " kills, " << stops_ << " stops, " << rounds_ << " pauses in "
                  << ms(Clock::now() - begin) / 1000 << " s; " << told << " publications, "
                  << shared_.server.number.load() << " rings, " << overruns()
                  << " overruns; in a pause all were told within " << ms(slowest_) << " ms"
                  << std::endl;
    }

    const KillOptions options_;
    const std::string ring_;  // a directory
    Shared& shared_;
    std::mt19937_64 random_;
    std::vector<Victim> victims_;  // the server, the writers, the readers
    std::uint32_t phase_ = 0;
    std::uint64_t rounds_ = 0;
    std::uint64_t kills_ = 0;
    std::uint64_t stops_ = 0;
    Clock::duration slowest_{};
};

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Kills, stops and restarts the processes of a local topic.", "kvo-ring-kill-test");
    KillOptions options{10'000};
    const auto place = [](const Arguments& arguments) { return std::stoull(arguments.at(1)); };
    const Roles roles{
        {"server",
         [](const Arguments& arguments) {
             Server(RingIn(arguments.at(0)), SharedIn(arguments.at(0))).Run();
         }},
        {"writer",
         [&](const Arguments& arguments) {
             Shared& shared = SharedIn(arguments.at(0));
             Write(RingIn(arguments.at(0)), shared, shared.writers.at(place(arguments)));
         }},
        {"reader", [&](const Arguments& arguments) {
             Shared& shared = SharedIn(arguments.at(0));
             Reader(RingIn(arguments.at(0)), shared, shared.readers.at(place(arguments))).Run();
         }}};
    return Run(argc, argv, app, options, roles, [&] {
        const kvo::test::TempDirectory scratch;
        KillLoop(options, scratch.path()).Run();
    });
}
