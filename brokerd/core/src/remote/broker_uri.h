#pragma once

#include <string>
#include <string_view>

namespace kvo::brokerd {

inline constexpr std::string_view kBrokerScheme = "wkp.rr";
inline constexpr std::string_view kBrokerPath = "/broker/Broker1";

struct BrokerPlace {
    std::string host;
    std::string port;
};

/// Where a broker serves requests. Throws std::runtime_error saying why the text names none.
[[nodiscard]] BrokerPlace PlaceOf(const std::string& text);

/// The URI of a broker's requests, without the path. Throws as PlaceOf().
[[nodiscard]] std::string CompleteBrokerUri(const std::string& text);

}  // namespace kvo::brokerd
