// Publishes what this host does, a line of JSON for each interval, until SIGINT or SIGTERM:
//   example-telemetry BROKER STREAM SECONDS
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <kvo/KvoDataTransferFactory.h>
#include <limits>
#include <sstream>
#include <string>

namespace {

struct ProcessorTime {  // clock ticks of all processors since the start of the system
    std::uint64_t idle = 0;
    std::uint64_t total = 0;
};

ProcessorTime ReadProcessorTime() {
    // "cpu user nice system idle iowait irq softirq steal ..."
    std::ifstream file("/proc/stat");
    std::string name;
    file >> name;
    ProcessorTime time;
    std::uint64_t ticks = 0;
    for (int field = 0; field < 8 && file >> ticks; ++field) {
        time.total += ticks;
        time.idle += field == 3 || field == 4 ? ticks : 0;
    }
    return time;
}

std::uint64_t AvailableBytes() {
    std::ifstream file("/proc/meminfo");
    std::string name;
    std::uint64_t kibibytes = 0;
    while (file >> name >> kibibytes && name != "MemAvailable:") {
        file.ignore(std::numeric_limits<std::streamsize>::max(), '\n');
    }
    return kibibytes * 1024;
}

std::string Line(const ProcessorTime& before, const ProcessorTime& now) {
    double load = 0;
    std::ifstream("/proc/loadavg") >> load;
    const auto total = static_cast<double>(now.total - before.total);
    const auto idle = static_cast<double>(now.idle - before.idle);
    std::ostringstream line;
    line << "{\"cpu_percent\":" << (total > 0 ? 100 * (total - idle) / total : 0)
         << ",\"load_1m\":" << load << ",\"memory_available_bytes\":" << AvailableBytes() << "}";
    return line.str();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "usage: example-telemetry BROKER STREAM SECONDS\n";
        return 2;
    }
    // Blocked before the library starts its threads, so that the wait below takes the signal.
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);

    auto publisher = kvo::KvoDataTransferFactory::CreatePublisher(nullptr /* no log */);
    publisher->SetBufferSize(256 /* bytes */, 16 /* samples */);
    if (publisher->RegisterPublisher(argv[1], argv[2], false) != 1) {
        std::cerr << "example-telemetry: no broker, or the stream was refused\n";
        return 1;
    }
    const double seconds = std::atof(argv[3]);
    timespec interval{};
    interval.tv_sec = static_cast<time_t>(seconds);
    interval.tv_nsec = static_cast<long>((seconds - static_cast<double>(interval.tv_sec)) * 1e9);
    ProcessorTime before = ReadProcessorTime();
    while (sigtimedwait(&ending, nullptr, &interval) < 0) {
        const ProcessorTime now = ReadProcessorTime();
        const std::string line = Line(before, now);
        before = now;
        publisher->WriteData(0, {line.begin(), line.end()}, {});
        publisher->PublishData();
    }
    return 0;  // the destructor unregisters
}
