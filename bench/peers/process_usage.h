#pragma once

#include <cstdint>
#include <sys/types.h>
#include <vector>

namespace kvo::bench {

/// Nanoseconds that these processes have had a processor, user and kernel, all threads. Throws
/// std::system_error when one is gone.
std::uint64_t ProcessorTime(const std::vector<pid_t>& processes);

/// How often the threads that the process has now were given a processor.
std::uint64_t ContextSwitches(pid_t process);

}  // namespace kvo::bench
