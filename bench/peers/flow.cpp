#include "flow.h"

#include "process_usage.h"

#include <chrono>
#include <cstring>
#include <ctime>
#include <immintrin.h>
#include <limits>
#include <optional>
#include <sched.h>
#include <stdexcept>
#include <thread>
#include <unistd.h>
#include <vector>

namespace kvo::bench {
namespace {

using std::chrono::milliseconds;

// Sent until every reader has got one, and some more so that all buffers have been used once.
constexpr std::uint64_t kProbe = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t kProbePauseNs = 500'000;  // for each reader; bounds the error of attaching
constexpr std::uint64_t kWarmUpPauseNs = 1'000'000;
constexpr std::uint64_t kAttachNs = 20'000'000'000;
// A reader that stands still for so long has lost what it was sent.
constexpr std::uint64_t kStandstillNs = 500'000'000;
// The publisher looks at the time so seldom, and ends after a multiple of it: every reader tells
// its position there, whatever the number of buffers.
constexpr std::uint64_t kLookEvery = 64;
// Longer and the publisher keeps a core from those who would make room for it.
constexpr int kSpins = 100;

// First bytes of every payload.
struct Stamp {
    std::uint64_t sent_ns;
    std::uint64_t sequence;  // from 0, or kProbe
};

void SleepUntil(std::uint64_t time_ns) {
    const timespec time{static_cast<time_t>(time_ns / 1'000'000'000),
                        static_cast<long>(time_ns % 1'000'000'000)};
    while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &time, nullptr) == EINTR) {
    }
}

// Holds the publisher back while the slowest reader is half of the buffers behind.
class Room {
public:
    explicit Room(const Flow& flow)
        : flow_(flow), ahead_(std::max<std::uint64_t>(flow.plan.load.buffers / 2, 1)) {}

    void AwaitFor(std::uint64_t sample) {
        AwaitPosition(sample + 1 - std::min(sample + 1, ahead_));
    }

    // Until all readers are there, or stand still: what is on its way then counts as lost.
    void AwaitPosition(std::uint64_t position) {
        std::uint64_t moved_ns = 0;
        for (int spins = 0; slowest_ < position; ++spins) {
            const std::uint64_t now_at = std::max(skipped_, Slowest());
            if (now_at != slowest_ || moved_ns == 0) {
                slowest_ = now_at;
                moved_ns = Now();
            } else if (spins < kSpins) {
                ::_mm_pause();
            } else if (Now() - moved_ns > kStandstillNs) {
                skipped_ = slowest_ = position;
            } else {
                ::sched_yield();
            }
        }
    }

private:
    std::uint64_t Slowest() const {
        std::uint64_t slowest = kProbe;
        for (std::size_t i = 0; i < flow_.plan.load.readers; ++i) {
            const auto& reader = flow_.state().readers[i];
            slowest =
                std::min(slowest, reader.position.load(std::memory_order_acquire));  // [taken]
        }
        return slowest;
    }

    const Flow& flow_;
    const std::uint64_t ahead_;
    std::uint64_t slowest_ = 0;
    std::uint64_t skipped_ = 0;
};

// An application's data: eight buffers in turn, filled before the clock starts.
class Sources {
public:
    explicit Sources(std::size_t bytes) {
        for (unsigned char i = 0; i < 8; ++i) {
            buffers_.emplace_back(bytes, i);
        }
    }
    const unsigned char* Stamped(const Stamp& stamp) {
        next_ = (next_ + 1) % buffers_.size();
        std::memcpy(buffers_[next_].data(), &stamp, sizeof stamp);
        return buffers_[next_].data();
    }

private:
    std::vector<std::vector<unsigned char>> buffers_;
    std::size_t next_ = 0;
};

bool AllAttached(const Flow& flow) {
    const auto& readers = flow.state().readers;
    return std::all_of(readers.begin(),
                       readers.begin() + static_cast<std::ptrdiff_t>(flow.plan.load.readers),
                       [](const ReaderState& reader) {
                           return reader.attached.load(std::memory_order_acquire);  // [attached]
                       });
}

void SendProbes(Publisher& publisher, Sources& sources, const Flow& flow) {
    const auto send = [&](std::uint64_t pause_ns) {
        publisher.Write(sources.Stamped({Now(), kProbe}));
        publisher.Tell();
        SleepUntil(Now() + pause_ns);
    };
    const std::uint64_t begin_ns = Now();
    while (!AllAttached(flow)) {
        if (Now() - begin_ns > kAttachNs) {
            throw std::runtime_error("not every reader was attached in time");
        }
        send(kProbePauseNs * flow.plan.load.readers);
    }
    for (std::size_t i = 0; i < flow.plan.load.buffers; ++i) {
        send(kWarmUpPauseNs);
    }
    std::this_thread::sleep_for(milliseconds(50));
}

// One sample after the other with a pause between them, each timed.
void SendTimed(Publisher& publisher, Sources& sources, const Flow& flow, Room& room) {
    const std::uint64_t begin_ns = Now();
    for (std::size_t i = 0; i < flow.plan.timed_samples(); ++i) {
        SleepUntil(begin_ns + i * flow.plan.pause_ns);
        room.AwaitFor(i);
        const std::uint64_t sent_ns = Now();
        publisher.Write(sources.Stamped({sent_ns, i}));
        publisher.Tell();
        flow.calls[i] = static_cast<std::uint32_t>(Now() - sent_ns);
    }
    flow.state().sent = flow.plan.timed_samples();
}

void SendAsFastAsReadersFollow(Publisher& publisher, Sources& sources, const Flow& flow,
                               Room& room) {
    const std::uint64_t end_ns = Now() + flow.plan.duration_ns;
    std::uint64_t i = 0;
    while (i % kLookEvery != 0 || Now() < end_ns) {
        room.AwaitFor(i);
        publisher.Write(sources.Stamped({0, i}));
        if (++i % flow.plan.batch == 0) {
            publisher.Tell();
        }
    }
    flow.state().sent = i;
}

}  // namespace

std::uint64_t Now() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000U +
           static_cast<std::uint64_t>(now.tv_nsec);
}

Flow::Flow(const Plan& the_plan)
    : plan(the_plan),
      pages(1),
      latency_pages(plan.timed_samples() * plan.load.readers + 1),
      calls(plan.timed_samples() + 1) {}

Account::Account(const Flow& flow, std::size_t reader)
    : flow_(flow),
      state_(flow.state().readers.at(reader)),
      latencies_(flow.latencies(reader)),
      last_byte_(flow.plan.load.bytes - 1),
      tell_every_(flow.plan.pause_ns == 0 ? std::max<std::size_t>(flow.plan.load.buffers / 8, 1)
                                          : 1) {}

void Account::Take(const unsigned char* payload) {
    const volatile unsigned char last = payload[last_byte_];
    static_cast<void>(last);
    Stamp stamp{};
    std::memcpy(&stamp, payload, sizeof stamp);
    if (stamp.sequence == kProbe) {
        if (state_.registration_ns == 0) {
            state_.registration_ns = Now() - begin_ns_;
            state_.process = ::getpid();
            state_.attached.store(true, std::memory_order_release);  // [attached]
        }
        return;
    }
    if (stamp.sequence < flow_.plan.timed_samples()) {
        latencies_[stamp.sequence] = static_cast<std::uint32_t>(Now() - stamp.sent_ns);
    }
    if (received_++ == 0) {
        state_.first_ns = Now();
    }
    if (stamp.sequence + 1 >= told_ + tell_every_) {
        told_ = stamp.sequence + 1;
        state_.received = received_;
        state_.last_ns = Now();
        state_.position.store(told_, std::memory_order_release);  // [taken]
    }
}

void Account::AwaitEnd() const {
    while (!over()) {
        std::this_thread::sleep_for(milliseconds(50));
    }
}

void Publish(Publisher& publisher, const Flow& flow, pid_t daemon) {
    FlowState& state = flow.state();
    Sources sources(flow.plan.load.bytes);
    SendProbes(publisher, sources, flow);

    std::vector<pid_t> processes{::getpid()};
    for (std::size_t i = 0; i < flow.plan.load.readers; ++i) {
        processes.push_back(state.readers[i].process);
    }
    if (daemon != 0) {
        processes.push_back(daemon);
    }
    Room room(flow);
    const std::uint64_t switches = daemon == 0 ? 0 : ContextSwitches(daemon);
    const std::uint64_t cpu_ns = ProcessorTime(processes);
    const std::uint64_t begin_ns = Now();
    if (flow.plan.pause_ns != 0) {
        SendTimed(publisher, sources, flow, room);
    } else {
        SendAsFastAsReadersFollow(publisher, sources, flow, room);
    }
    room.AwaitPosition(state.sent);
    state.elapsed_ns = Now() - begin_ns;
    state.cpu_ns = ProcessorTime(processes) - cpu_ns;
    state.daemon_switches = daemon == 0 ? kNoDaemon : ContextSwitches(daemon) - switches;
    state.finished.store(true, std::memory_order_release);  // [finished]
}

}  // namespace kvo::bench
