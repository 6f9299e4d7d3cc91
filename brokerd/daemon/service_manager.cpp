#include "service_manager.h"

#if defined(KVO_HAVE_SYSTEMD)
#include <systemd/sd-daemon.h>
#endif

#include <cstdint>

namespace kvo::brokerd {

#if defined(KVO_HAVE_SYSTEMD)

void TellServiceManager(const std::string& state) {
    ::sd_notify(0, state.c_str());
}

std::chrono::microseconds WatchdogInterval() {
    std::uint64_t interval_us = 0;
    return std::chrono::microseconds(
        ::sd_watchdog_enabled(0, &interval_us) > 0 ? static_cast<std::int64_t>(interval_us) : 0);
}

#else

void TellServiceManager(const std::string&) {}

std::chrono::microseconds WatchdogInterval() {
    return std::chrono::microseconds(0);
}

#endif

}  // namespace kvo::brokerd
