#include "telemetry.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace kvo::tools {
namespace {

std::ifstream Open(const std::string& path) {
    std::ifstream file(path);
    if (!file) {
        throw std::runtime_error("cannot read " + path);
    }
    return file;
}

[[noreturn]] void NotUnderstood(const std::string& path) {
    throw std::runtime_error("cannot understand " + path);
}

struct Memory {
    std::uint64_t total_bytes = 0;
    std::uint64_t available_bytes = 0;
};

Memory ReadMemory(const std::string& path) {
    std::ifstream file = Open(path);
    Memory memory;
    std::string line;
    while (std::getline(file, line)) {
        std::istringstream fields(line);
        std::string name;
        std::uint64_t kibibytes = 0;
        if (fields >> name >> kibibytes) {
            if (name == "MemTotal:") {
                memory.total_bytes = kibibytes * 1024;
            } else if (name == "MemAvailable:") {
                memory.available_bytes = kibibytes * 1024;
            }
        }
    }
    if (memory.total_bytes == 0) {
        NotUnderstood(path);
    }
    return memory;
}

double Hundredths(double value) {
    return std::round(value * 100) / 100;
}

// A counter that went back was reset: no rate can be told.
double Growth(std::uint64_t before, std::uint64_t now) {
    return now < before ? 0.0 : static_cast<double>(now - before);
}

}  // namespace

Telemetry::Telemetry(std::string proc_directory) : proc_directory_(std::move(proc_directory)) {}

std::string Telemetry::Sample(std::chrono::system_clock::time_point now,
                              std::chrono::steady_clock::time_point tick) {
    const Counters counters = ReadCounters(tick);
    const Counters before = std::exchange(before_, counters).value_or(counters);

    double load_1m = 0;
    double load_5m = 0;
    const std::string load_path = proc_directory_ + "/loadavg";
    if (!(Open(load_path) >> load_1m >> load_5m)) {
        NotUnderstood(load_path);
    }
    const Memory memory = ReadMemory(proc_directory_ + "/meminfo");

    const double ticks = std::max(Growth(before.cpu_total, counters.cpu_total), 1.0);
    const std::chrono::duration<double> elapsed = counters.taken_at - before.taken_at;
    const double seconds = elapsed.count() > 0 ? elapsed.count() : 1.0;

    nlohmann::ordered_json line;
    line["time_ms"] =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count();
    line["cpu_percent"] = Hundredths(100 * Growth(before.cpu_busy, counters.cpu_busy) / ticks);
    line["load_1m"] = load_1m;
    line["load_5m"] = load_5m;
    line["memory_total_bytes"] = memory.total_bytes;
    line["memory_available_bytes"] = memory.available_bytes;
    line["network_received_bytes_per_s"] =
        std::llround(Growth(before.received_bytes, counters.received_bytes) / seconds);
    line["network_sent_bytes_per_s"] =
        std::llround(Growth(before.sent_bytes, counters.sent_bytes) / seconds);
    return line.dump();
}

Telemetry::Counters Telemetry::ReadCounters(std::chrono::steady_clock::time_point tick) const {
    Counters counters;
    counters.taken_at = tick;

    // "cpu user nice system idle iowait irq softirq steal ...": the sum over all processors.
    const std::string stat_path = proc_directory_ + "/stat";
    std::ifstream stat = Open(stat_path);
    std::string name;
    std::array<std::uint64_t, 8> ticks{};
    stat >> name;
    for (std::uint64_t& field : ticks) {
        stat >> field;
        counters.cpu_total += field;
    }
    if (!stat || name != "cpu") {
        NotUnderstood(stat_path);
    }
    counters.cpu_busy = counters.cpu_total - ticks[3] - ticks[4];

    // Two lines of heading, then "name: received-bytes (7 more) sent-bytes ...".
    const std::string network_path = proc_directory_ + "/net/dev";
    std::ifstream network = Open(network_path);
    std::string line;
    while (std::getline(network, line)) {
        const std::size_t colon = line.find(':');
        if (colon == std::string::npos) {
            continue;
        }
        std::istringstream interface(line.substr(0, colon));
        std::istringstream values(line.substr(colon + 1));
        interface >> name;
        std::array<std::uint64_t, 9> numbers{};
        for (std::uint64_t& number : numbers) {
            values >> number;
        }
        if (!values) {
            NotUnderstood(network_path);
        }
        if (name != "lo") {
            counters.received_bytes += numbers.front();
            counters.sent_bytes += numbers.back();
        }
    }
    return counters;
}

}  // namespace kvo::tools
