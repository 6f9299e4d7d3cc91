#pragma once

#include "temp_directory.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <sys/types.h>
#include <thread>
#include <vector>

namespace CLI {
class App;
}

/// What the stress tests are made of: this program started again in other roles, killed and stopped
/// there, and what the processes tell each other in memory that outlives them.
namespace kvo::stress {

using Clock = std::chrono::steady_clock;
using Arguments = std::vector<std::string>;

/// Throws std::runtime_error with the second text when the first does not hold.
void Demand(bool holds, const std::string& otherwise);

/// Looks every millisecond whether it is done. @return how long that took; throws
/// std::runtime_error naming `what` after `at_most`.
template <class Done>
Clock::duration Await(Clock::duration at_most, const std::string& what, Done done) {
    const auto begin = Clock::now();
    while (!done()) {
        Demand(Clock::now() - begin < at_most, what + " took too long");
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return Clock::now() - begin;
}

/// Maps the file, which is made when it is missing, until the process ends.
void* MapShared(const std::string& path, std::size_t bytes);

/// Atomics that processes share: all zero at first.
template <class T>
T& Share(const std::string& path) {
    return *static_cast<T*>(MapShared(path, sizeof(T)));
}

/// One process: this program with other arguments.
class Process {
public:
    explicit Process(const Arguments& arguments);
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    ~Process();  // kills it

    pid_t id() const { return id_; }
    void Signal(int number) const;
    /// Waits until it has ended. @return its status.
    int Await();
    bool HasEnded();
    /// @return whether it has ended, or stopped since the last look; its status then.
    bool Look(int& status);
    /// Kills it. Throws std::runtime_error when it had ended by itself.
    void Kill();

private:
    pid_t id_ = -1;
    int status_ = 0;
    bool ended_ = false;
};

/// What a test that kills is told on its command line: --kills, --seconds and --seed.
struct KillOptions {
    std::uint64_t kills;
    double seconds = 0;  // 0: no limit
    std::uint64_t seed = std::random_device()();

    /// Whether the test is to end.
    bool Over(std::uint64_t killed, Clock::time_point begin) const;
};

/// A process is started with the name of its role first.
using Roles = std::map<std::string, std::function<void(const Arguments&)>>;

/// The main function of a test: runs the role of its arguments, or parses the options and drives
/// the others. What these throw is the test's failure. @return the exit code.
int Run(int argc, char** argv, CLI::App& app, KillOptions& options, const Roles& roles,
        const std::function<void()>& drive);

/// As a role's process does: it ends with the process that started it.
void EndWithParent();

}  // namespace kvo::stress
