#pragma once

#include "processes.h"

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>

/// Every named point of a protocol (kvo/crash_point.h), hit once with SIGKILL and once with
/// SIGSTOP: a process that dies or stops there harms no other.
namespace kvo::stress {

/// The others, whom the process of a role runs into. Made anew for each point, before the process.
class Encounter {
public:
    virtual ~Encounter() = default;
    /// Called again and again until the process has died, stopped or ended.
    virtual void Feed() {}
    /// The process has died or stopped at its point. Throws std::runtime_error saying what is
    /// wrong.
    virtual void CheckOthers(int signal) = 0;
    /// The process has died, or has gone on and ended by itself. Throws too.
    virtual void CheckEnd(int signal) = 0;
};

struct Play {
    /// What a role's process does, in the directory of its encounter.
    std::map<std::string, void (*)(const std::string& directory)> roles;
    std::function<std::unique_ptr<Encounter>(const std::string& role, const std::string& directory)>
        encounter;
    std::size_t least_points;  // fewer: something is wrong with the test
};

/// The main function of such a test. @return the exit code.
int RunCrashPoints(int argc, char** argv, const Play& play);

}  // namespace kvo::stress
