#include "process_usage.h"

#include <cerrno>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>

namespace kvo::bench {

std::uint64_t ProcessorTime(const std::vector<pid_t>& processes) {
    std::uint64_t total_ns = 0;
    for (const pid_t process : processes) {
        clockid_t clock{};
        timespec time{};
        int error = ::clock_getcpuclockid(process, &clock);
        if (error == 0 && ::clock_gettime(clock, &time) != 0) {
            error = errno;
        }
        if (error != 0) {
            throw std::system_error(error, std::generic_category(),
                                    "processor time of process " + std::to_string(process));
        }
        total_ns += static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000U +
                    static_cast<std::uint64_t>(time.tv_nsec);
    }
    return total_ns;
}

std::uint64_t ContextSwitches(pid_t process) {
    std::uint64_t total = 0;
    const std::string tasks = "/proc/" + std::to_string(process) + "/task";
    for (const auto& task : std::filesystem::directory_iterator(tasks)) {
        std::ifstream status(task.path() / "status");
        std::string word;
        while (status >> word) {
            std::uint64_t switches = 0;
            if (word.ends_with("voluntary_ctxt_switches:") && status >> switches) {
                total += switches;
            }
        }
    }
    return total;
}

}  // namespace kvo::bench
