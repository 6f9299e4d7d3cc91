#include "measure.h"

#include "processes.h"

#include <cstring>
#include <exception>
#include <functional>
#include <iostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace kvo::bench {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

constexpr std::uint64_t kMillisecondNs = 1'000'000;
// Registering, attaching and warming up; what takes longer hangs.
constexpr milliseconds kPreparation{30'000};
constexpr milliseconds kEnding{3000};

std::uint64_t Ns(milliseconds time) {
    return static_cast<std::uint64_t>(nanoseconds(time).count());
}

// The processes of one measurement; those that are left when it fails are killed.
class Processes {
public:
    Processes() = default;
    Processes(const Processes&) = delete;
    Processes& operator=(const Processes&) = delete;
    ~Processes() {
        for (const pid_t process : processes_) {
            AwaitExit(process, milliseconds(0));
        }
    }
    void Start(const std::string& name, const std::function<void()>& part) {
        processes_.push_back(Fork(name, part));
    }
    // Throws when `done` does not become true in time or a process ends before it does.
    void Await(const std::function<bool()>& done, milliseconds longest, const char* what) {
        constexpr milliseconds kStep{10};
        for (; !done(); longest -= kStep) {
            if (longest.count() <= 0) {
                throw std::runtime_error(std::string("time-out ") + what);
            }
            for (const pid_t process : processes_) {
                if (HasEnded(process) && !done()) {
                    throw std::runtime_error(std::string("a process ended ") + what);
                }
            }
            std::this_thread::sleep_for(kStep);
        }
    }
    // Gives them time to end by themselves, which is no part of any figure.
    void End() {
        for (const pid_t process : processes_) {
            AwaitExit(process, kEnding);
        }
        processes_.clear();
    }

private:
    std::vector<pid_t> processes_;
};

void Run(const System& system, const Flow& flow) {
    const auto peer = system.make(flow.plan.load);
    const std::string name = std::string(system.name) + ", " + system.mode;
    FlowState& state = flow.state();
    Processes processes;
    processes.Start(name + ", publisher", [&] {
        const std::uint64_t begin_ns = Now();
        const auto publisher = peer->MakePublisher();
        state.registration_ns = Now() - begin_ns;
        state.publisher_ready.store(true, std::memory_order_release);  // [ready]
        Publish(*publisher, flow, peer->daemon());
    });
    processes.Await(
        [&] { return state.publisher_ready.load(std::memory_order_acquire); },  // [ready]
        kPreparation, "while the publisher registered");
    for (std::size_t i = 0; i < flow.plan.load.readers; ++i) {
        processes.Start(name + ", reader", [&flow, &peer, i] {
            Account account(flow, i);
            peer->MakeSubscriber(i)->Receive(account);
        });
    }
    const milliseconds planned{flow.plan.duration_ns / kMillisecondNs};
    processes.Await([&] { return state.finished.load(std::memory_order_acquire); },  // [finished]
                    kPreparation + 5 * planned, "while samples flowed");
    processes.End();
}

double At(const std::vector<std::uint32_t>& sorted, double part) {
    return sorted[static_cast<std::size_t>(static_cast<double>(sorted.size() - 1) * part)] / 1e3;
}

// The rows of one measurement of one system.
class Rows {
public:
    Rows(const System& system, std::string mode, std::size_t bytes, Report& report)
        : system_(system), mode_(std::move(mode)), bytes_(bytes), report_(report) {}

    // Runs the plan and adds what `add` takes from it, or says that it failed. The whole takes a
    // while, so each step is told.
    void Measure(const std::string& what, const Plan& plan,
                 const std::function<void(const Flow&)>& add) {
        std::cerr << system_.name << ", " << mode_ << ", " << bytes_ << " bytes, " << what << ": ";
        const std::uint64_t begin_ns = Now();
        try {
            const Flow flow(plan);
            Run(system_, flow);
            add(flow);
            std::cerr << (Now() - begin_ns) / kMillisecondNs << " ms" << std::endl;
        } catch (const std::exception& error) {
            std::cerr << error.what() << std::endl;
            Add(what + " failed", "runs", 1);
        }
    }
    void Add(const std::string& metric, const std::string& unit, double value) {
        report_.Add({system_.name, mode_, static_cast<std::int64_t>(bytes_), metric, unit}, value);
    }
    // Percentiles over all samples of all readers.
    void AddLatencies(const std::string& prefix, const Flow& flow) {
        std::vector<std::uint32_t> latencies;
        const std::size_t sent = flow.plan.timed_samples() * flow.plan.load.readers;
        std::copy_if(flow.latency_pages.begin(), flow.latency_pages.begin() + sent,
                     std::back_inserter(latencies), [](std::uint32_t ns) { return ns != 0; });
        std::sort(latencies.begin(), latencies.end());
        if (latencies.empty()) {
            throw std::runtime_error("every sample was lost");
        }
        Add(prefix + " p50", "us", At(latencies, 0.5));
        Add(prefix + " p99", "us", At(latencies, 0.99));
        Add(prefix + " p99.9", "us", At(latencies, 0.999));
        Add(prefix + " lost", "samples", static_cast<double>(sent - latencies.size()));
    }

private:
    const System& system_;
    const std::string mode_;
    const std::size_t bytes_;
    Report& report_;
};

}  // namespace

std::size_t BuffersFor(std::size_t bytes) {
    return bytes > 65536 ? 8 : 256;
}

void MeasureLatency(const System& system, std::size_t bytes, const Effort& effort, Report& report) {
    Plan plan;
    plan.load = {bytes, BuffersFor(bytes), 1, system.polled()};
    plan.duration_ns = Ns(effort.latency);
    plan.pause_ns = kMillisecondNs;
    Rows rows(system, system.mode, bytes, report);
    rows.Measure("latency", plan, [&](const Flow& flow) {
        rows.AddLatencies("latency", flow);
        if (system.polled() || bytes != 64) {
            return;
        }
        rows.Add("registration publisher", "ms",
                 static_cast<double>(flow.state().registration_ns) / 1e6);
        rows.Add("registration subscriber", "ms",
                 static_cast<double>(flow.state().readers[0].registration_ns) / 1e6);
    });
}

void MeasureRate(const System& system, std::size_t bytes, std::size_t buffers, const Effort& effort,
                 Report& report) {
    Plan plan;
    plan.load = {bytes, buffers, 1, system.polled()};
    plan.duration_ns = Ns(effort.rate);
    plan.batch = system.polled() ? 64 : 1;
    const bool usual = buffers == BuffersFor(bytes);
    Rows rows(system, system.mode + (usual ? "" : ", " + std::to_string(buffers) + " buffers"),
              bytes, report);
    rows.Measure("rate", plan, [&](const Flow& flow) {
        const ReaderState& reader = flow.state().readers[0];
        if (reader.received < 2) {
            throw std::runtime_error("every sample was lost");
        }
        rows.Add("rate", "1000/s",
                 static_cast<double>(reader.received) * 1e6 /
                     static_cast<double>(reader.last_ns - reader.first_ns));
        rows.Add("rate lost", "samples", static_cast<double>(flow.state().sent - reader.received));
    });
}

void MeasureFanOut(const System& system, std::size_t readers, const Effort& effort,
                   Report& report) {
    Plan plan;
    plan.load = {64, BuffersFor(64), readers, false};
    plan.duration_ns = Ns(effort.fan_out);
    plan.pause_ns = kMillisecondNs;
    const std::string what = "fan-out " + std::to_string(readers);
    Rows rows(system, system.mode, plan.load.bytes, report);
    rows.Measure(what, plan, [&](const Flow& flow) {
        rows.AddLatencies(what, flow);
        std::vector<std::uint32_t> calls(flow.calls.begin(),
                                         flow.calls.begin() + flow.plan.timed_samples());
        std::sort(calls.begin(), calls.end());
        rows.Add(what + " call p50", "us", At(calls, 0.5));
        rows.Add(what + " call p99", "us", At(calls, 0.99));
        rows.Add(what + " CPU", "cores",
                 static_cast<double>(flow.state().cpu_ns) /
                     static_cast<double>(flow.state().elapsed_ns));
    });
}

void MeasureProcessorTime(const System& system, const Effort& effort, Report& report) {
    Plan plan;
    plan.load = {4096, BuffersFor(4096), 1, false};
    plan.duration_ns = Ns(effort.processor);
    plan.pause_ns = kMillisecondNs / 10;
    Rows rows(system, system.mode, plan.load.bytes, report);
    rows.Measure("CPU", plan, [&](const Flow& flow) {
        const FlowState& state = flow.state();
        rows.Add("CPU", "s/million",
                 static_cast<double>(state.cpu_ns) / 1e3 / static_cast<double>(state.sent));
        rows.Add("CPU lost", "samples",
                 static_cast<double>(state.sent - state.readers[0].received));
        // Daemons only: one that has none switches no context.
        if (state.daemon_switches != kNoDaemon) {
            rows.Add("CPU daemon switches", "1/s",
                     static_cast<double>(state.daemon_switches) * 1e9 /
                         static_cast<double>(state.elapsed_ns));
        }
    });
}

void MeasureCopy(std::size_t bytes, Report& report) {
    constexpr std::uint64_t kBytesInAll = 1'000'000'000;
    const std::uint64_t copies = std::min<std::uint64_t>(kBytesInAll / bytes, 1'000'000);
    const std::vector<std::vector<unsigned char>> sources(8, std::vector<unsigned char>(bytes, 1));
    std::vector<std::vector<unsigned char>> buffers(BuffersFor(bytes),
                                                    std::vector<unsigned char>(bytes));
    unsigned char seen = 0;
    const std::uint64_t begin_ns = Now();
    for (std::uint64_t i = 0; i < copies; ++i) {
        auto& buffer = buffers[i % buffers.size()];
        std::memcpy(buffer.data(), sources[i % sources.size()].data(), bytes);
        const volatile unsigned char last = buffer.back();
        seen = static_cast<unsigned char>(seen + last);
    }
    const double ns = static_cast<double>(Now() - begin_ns) / static_cast<double>(copies);
    if (seen != static_cast<unsigned char>(copies)) {
        throw std::runtime_error("memcpy lost bytes");
    }
    const auto payload_bytes = static_cast<std::int64_t>(bytes);
    report.Add({"memcpy", "one process", payload_bytes, "latency p50", "us"}, ns / 1e3);
    report.Add({"memcpy", "one process", payload_bytes, "rate", "1000/s"}, 1e6 / ns);
}

}  // namespace kvo::bench
