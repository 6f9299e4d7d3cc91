#pragma once

#include <chrono>
#include <string>

namespace kvo::brokerd {

/// The numeric address of a host, IPv6 in brackets. Waits for the name server at most so long;
/// throws std::runtime_error naming the host and what is wrong.
[[nodiscard]] std::string LookUpHost(const std::string& host, std::chrono::milliseconds at_most);

}  // namespace kvo::brokerd
