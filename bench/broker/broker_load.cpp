// Thousands of clients that are registered at one broker and only say that they live: how long
// registrations and heartbeats take, what the broker uses for that, and whether it takes anybody
// for dead. The clients hold no lock bytes, so heartbeats alone keep their registrations.
#include "report.h"
#include "simulated_client.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <exception>
#include <functional>
#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <sys/epoll.h>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using namespace kvo::bench;

constexpr std::int32_t kPayloadBytes = 64;
constexpr std::int32_t kSamples = 4;
// A stream of this geometry takes less; the budget is a bound, not a reservation.
constexpr std::size_t kStreamMiB = 4;
// Clients that ask at the same time while they connect and register: programs start one by one,
// but not each only when the one before is ready.
constexpr std::size_t kAskingAtOnce = 32;
constexpr std::chrono::seconds kPeriod{1};

struct Options {
    std::size_t publishers = 1000;
    std::optional<std::size_t> subscribers;
    int seconds = 300;
    bool quick = false;
    bool tcp = false;
    std::string broker;
    std::string json;
};

// All clients, each with at most one request on its way.
class Fleet {
public:
    Fleet(const std::string& endpoint, std::size_t publishers, std::size_t subscribers);
    Fleet(const Fleet&) = delete;
    Fleet& operator=(const Fleet&) = delete;
    ~Fleet() { ::close(ready_); }

    // Each returns the times from a request to its answer, in microseconds.
    std::vector<double> Connect();
    std::vector<double> Register();
    std::vector<double> Heartbeat(std::chrono::seconds duration);

    std::size_t failures() const { return failures_; }
    const std::string& first_failure() const { return first_failure_; }
    std::size_t put_off() const { return put_off_; }

private:
    struct Member {
        std::string stream;
        std::string uuid;  // of a subscriber; empty: a publisher
        std::unique_ptr<SimulatedClient> client;
        std::uint32_t request = 0;
        std::optional<Clock::time_point> asked;
        const std::string& id() const { return uuid.empty() ? stream : uuid; }
    };
    std::vector<double> AskEach(const std::function<void(Member&)>& ask);
    template <class... A>
    static void Ask(Member& member, const char* method, const A&... arguments) {
        member.asked = Clock::now();
        member.request = member.client->Ask(method, arguments...);
    }
    void Watch(std::size_t index);
    bool Serve(Clock::time_point until);
    void Take(Member& member);
    void Settle(Member& member, const std::string& error);

    const std::string endpoint_;
    zmq::context_t context_;
    const int ready_;  // epoll over all members
    std::vector<Member> members_;
    std::size_t open_ = 0;
    std::vector<double> times_us_;
    std::size_t failures_ = 0;
    std::string first_failure_;
    std::size_t put_off_ = 0;
};

Fleet::Fleet(const std::string& endpoint, std::size_t publishers, std::size_t subscribers)
    : endpoint_(endpoint),
      ready_(::epoll_create1(EPOLL_CLOEXEC)),
      members_(publishers + subscribers) {
    if (ready_ < 0) {
        throw std::system_error(errno, std::generic_category(), "making an epoll");
    }
    context_.set(zmq::ctxopt::max_sockets, static_cast<int>(members_.size() + 16));
    // One thread would search the timers of all connections for each of their heartbeats.
    context_.set(zmq::ctxopt::io_threads, 8);
    for (std::size_t i = 0; i < members_.size(); ++i) {
        members_[i].stream = "load/" + std::to_string(i % publishers);
        members_[i].uuid = i < publishers ? "" : "subscriber-" + std::to_string(i);
    }
}

// Not zmq_poll: that looks at every socket at each turn, which for thousands of them takes longer
// than what is to be measured.
void Fleet::Watch(std::size_t index) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = index;
    if (::epoll_ctl(ready_, EPOLL_CTL_ADD, members_[index].client->descriptor(), &event) != 0) {
        throw std::system_error(errno, std::generic_category(), "watching a connection");
    }
}

void Fleet::Settle(Member& member, const std::string& error) {
    member.asked.reset();
    --open_;
    if (!error.empty() && failures_++ == 0) {
        first_failure_ = member.id() + ": " + error;
    }
}

void Fleet::Take(Member& member) {
    while (const std::optional<Answer> answer = member.client->Take()) {
        if (!member.asked || answer->id != member.request) {
            continue;  // too late: it has been counted as a failure
        }
        times_us_.push_back(
            std::chrono::duration<double, std::micro>(Clock::now() - *member.asked).count());
        const bool registered = answer->result().is_nil() ||
                                answer->result().type == msgpack::type::BOOLEAN ||
                                answer->result().as<std::int32_t>() == 1;
        Settle(member, !answer->error.empty() ? answer->error
                       : registered           ? ""
                                              : "the registration was refused");
    }
}

// Takes answers that are there or, when none is, waits for some. False: none came.
bool Fleet::Serve(Clock::time_point until) {
    const auto left =
        std::max<std::chrono::nanoseconds>(std::chrono::nanoseconds(0), until - Clock::now());
    const timespec timeout{static_cast<time_t>(left.count() / 1'000'000'000),
                           static_cast<long>(left.count() % 1'000'000'000)};
    std::array<epoll_event, 64> events{};
    const int count =
        ::epoll_pwait2(ready_, events.data(), static_cast<int>(events.size()), &timeout, nullptr);
    for (int i = 0; i < count; ++i) {
        Take(members_[events[static_cast<std::size_t>(i)].data.u64]);
    }
    return count != 0;
}

std::vector<double> Fleet::AskEach(const std::function<void(Member&)>& ask) {
    const auto serve = [this] {
        if (!Serve(Clock::now() + kPatience)) {
            throw std::runtime_error("the broker does not answer");
        }
    };
    for (Member& member : members_) {
        while (open_ >= kAskingAtOnce) {
            serve();
        }
        ++open_;
        ask(member);
        Take(member);
    }
    while (open_ > 0) {
        serve();
    }
    return std::exchange(times_us_, {});
}

std::vector<double> Fleet::Connect() {
    return AskEach([this](Member& member) {
        member.client =
            std::make_unique<SimulatedClient>(context_, endpoint_, SimulatedClient::NewRoutingId());
        Watch(static_cast<std::size_t>(&member - members_.data()));
        Ask(member, member.uuid.empty() ? "IsStreamIdFree" : "HasLocalPublisher", member.stream);
    });
}

std::vector<double> Fleet::Register() {
    return AskEach([](Member& member) {
        if (member.uuid.empty()) {
            Ask(member, "AddPublisher", member.stream, 250, 10, kPayloadBytes, kSamples, false, "");
        } else {
            Ask(member, "AddSubscriber", member.uuid, member.stream, "", 250, 10);
        }
    });
}

std::vector<double> Fleet::Heartbeat(std::chrono::seconds duration) {
    const std::size_t count = members_.size();
    const auto beats = count * static_cast<std::size_t>(duration / kPeriod);
    const auto gap =
        std::chrono::duration_cast<Clock::duration>(kPeriod) / static_cast<Clock::rep>(count);
    const auto begin = Clock::now();
    for (std::size_t beat = 0; beat < beats; ++beat) {
        const auto due = begin + static_cast<Clock::rep>(beat) * gap;
        do {
            Serve(due);
        } while (Clock::now() < due);
        Member& member = members_[beat % count];
        if (member.asked && Clock::now() - *member.asked >= kPatience) {
            Settle(member, "no answer to a heartbeat");
        }
        if (member.asked) {
            ++put_off_;  // a client's heartbeat thread waits for its answer
            continue;
        }
        ++open_;
        Ask(member, "SendHeartbeat", member.id());
        Take(member);
    }
    const auto end = Clock::now() + kPatience;
    while (open_ > 0 && Serve(end)) {
    }
    for (Member& member : members_) {
        if (member.asked) {
            Settle(member, "no answer to a heartbeat");
        }
    }
    return std::exchange(times_us_, {});
}

// One heading of the result: what was measured, of how many clients.
class Result {
public:
    Result(std::size_t publishers, std::size_t subscribers)
        : mode_(std::to_string(publishers) + "+" + std::to_string(subscribers) + " clients") {}

    void Add(const std::string& metric, const std::string& unit, double value) {
        report_.Add({"broker", mode_, kPayloadBytes, metric, unit}, value);
    }
    void AddTimes(const std::string& what, std::vector<double> times_us) {
        Add(what + " p50", "us", Percentile(times_us, 0.5));
        Add(what + " p99", "us", Percentile(times_us, 0.99));
        Add(what + " max", "us", Percentile(times_us, 1));
    }
    void Tell(const std::string& json) const {
        report_.Print();
        if (!json.empty()) {
            report_.WriteJson(json);
        }
    }

private:
    const std::string mode_;
    Report report_;
};

// @return whether nothing failed
bool Measure(const Options& options, std::size_t subscribers) {
    const std::size_t clients = options.publishers + subscribers;
    AllowDescriptors(2 * clients + 256);  // each end of ours is a socket and a signal
    BrokerProcess broker(options.broker, {"--log-level", "error", "--max-streams",
                                          std::to_string(options.publishers), "--memory-budget",
                                          std::to_string(options.publishers * kStreamMiB) + "MiB",
                                          "--max-connections", std::to_string(clients),
                                          "--heartbeat-period", std::to_string(kPeriod.count())});
    const Footprint idle = broker.Look();
    Result result(options.publishers, subscribers);
    Footprint before;
    Footprint after;
    double wall_s = 0;
    std::size_t failures = 0;
    {
        Fleet fleet(options.tcp ? broker.endpoint() : broker.local_endpoint(), options.publishers,
                    subscribers);
        result.AddTimes("connection", fleet.Connect());
        result.AddTimes("registration", fleet.Register());
        std::cout << clients << " clients are registered" << std::endl;
        before = broker.Look();
        const auto begin = Clock::now();
        result.AddTimes("heartbeat", fleet.Heartbeat(std::chrono::seconds(options.seconds)));
        wall_s = std::chrono::duration<double>(Clock::now() - begin).count();
        after = broker.Look();
        failures = fleet.failures();
        result.Add("heartbeats put off", "", static_cast<double>(fleet.put_off()));
        if (failures > 0) {
            std::cerr << failures << " requests failed, the first of " << fleet.first_failure()
                      << std::endl;
        }
    }
    broker.Stop();
    constexpr double kMiB = 1024.0 * 1024.0;
    result.Add("failed requests", "", static_cast<double>(failures));
    result.Add("CPU", "% of a core", 100 * (after.cpu_seconds - before.cpu_seconds) / wall_s);
    result.Add("RSS idle", "MiB", static_cast<double>(idle.rss_bytes) / kMiB);
    result.Add("RSS", "MiB", static_cast<double>(after.rss_bytes) / kMiB);
    result.Add("RSS, shared", "MiB", static_cast<double>(after.shared_bytes) / kMiB);
    result.Add("RSS / client", "bytes",
               (static_cast<double>(after.rss_bytes) - static_cast<double>(idle.rss_bytes)) /
                   static_cast<double>(clients));
    result.Tell(options.json);
    return failures == 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app(
        "Registers clients without stream data at a broker of its own and tells how it bears "
        "them. Exit code 1: a request failed or a client was taken for dead.");
    Options options;
    const auto count = CLI::Range(1, 15'000);
    app.add_option("--publishers", options.publishers, "Publishers, each with a stream")
        ->check(count)
        ->capture_default_str();
    app.add_option("--subscribers", options.subscribers,
                   "Subscribers; default: four for each publisher")
        ->check(CLI::Range(0, 15'000));
    app.add_option("--seconds", options.seconds, "How long heartbeats are sent")
        ->check(CLI::Range(1, 1'000'000))
        ->capture_default_str();
    app.add_flag("--quick", options.quick, "20 publishers, 80 subscribers and 10 s");
    app.add_flag("--tcp", options.tcp,
                 "Connect by TCP; default: by Unix socket, as clients of one host do");
    app.add_option("--broker", options.broker, "The broker; default: kvo-broker beside this");
    app.add_option("--json", options.json, "Also write the figures to this file");
    CLI11_PARSE(app, argc, argv);
    if (options.quick) {
        options.publishers = 20;
        options.subscribers = 80;
        options.seconds = 10;
    }
    try {
        return Measure(options, options.subscribers.value_or(4 * options.publishers)) ? 0 : 1;
    } catch (const std::exception& error) {
        std::cerr << "kvo-broker-load: " << error.what() << std::endl;
        return 1;
    }
}
