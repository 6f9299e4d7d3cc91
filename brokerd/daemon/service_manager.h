#pragma once

#include <chrono>
#include <string>

namespace kvo::brokerd {

/// Tells the service manager of this process, if there is one, what happens; see sd_notify(3).
void TellServiceManager(const std::string& state);

/// How often the service manager wants a sign of life; 0: it wants none.
std::chrono::microseconds WatchdogInterval();

}  // namespace kvo::brokerd
