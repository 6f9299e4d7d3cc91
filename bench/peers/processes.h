#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <sys/types.h>

namespace kvo::bench {

/// Runs `part` in a process of its own, which ends with it or with the caller, without static
/// destructors. What `part` throws goes to standard error, with `name`.
pid_t Fork(const std::string& name, const std::function<void()>& part);

/// Whether AwaitExit() will return at once.
bool HasEnded(pid_t process);

/// Whether the process ended well. It is killed when it takes longer.
bool AwaitExit(pid_t process, std::chrono::milliseconds longest);

}  // namespace kvo::bench
