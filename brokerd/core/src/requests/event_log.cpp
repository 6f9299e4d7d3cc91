#include "requests/event_log.h"

#include <chrono>
#include <utility>

namespace kvo::brokerd {
namespace {

constexpr std::size_t kKeptEvents = 1000;

std::uint64_t NowMs() {
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                          std::chrono::system_clock::now().time_since_epoch())
                                          .count());
}

}  // namespace

void EventLog::Add(std::string kind, std::string stream, std::string text) {
    thread_.here();
    events_.push_back({NowMs(), std::move(kind), std::move(stream), std::move(text)});
    if (events_.size() > kKeptEvents) {
        events_.pop_front();
    }
}

}  // namespace kvo::brokerd
