#include "remote/broker_uri.h"

#include "network/uri.hpp"
#include "streams/stream_name.h"

#include <charconv>
#include <stdexcept>

namespace kvo::brokerd {

BrokerPlace PlaceOf(const std::string& text) {
    const auto refuse = [&text](const char* why) {
        return std::runtime_error(Quoted(text) + " names no broker: " + why +
                                  "; a broker's URI looks like wkp.rr://host:5000");
    };
    try {
        const network::uri uri(text);
        const std::string port(uri.port());
        int number = 0;
        const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), number);
        if (uri.scheme() != kBrokerScheme) {
            throw refuse("its scheme is another one");
        }
        if (error != std::errc() || end != port.data() + port.size() || number < 1 ||
            number > 65535) {
            throw refuse("it has no port from 1 to 65535");
        }
        if (!uri.path().empty() && uri.path() != "/" && uri.path() != kBrokerPath) {
            throw refuse("its path is another one");
        }
        return {std::string(uri.host()), port};
    } catch (const network::uri_syntax_error& error) {
        throw refuse(error.what());
    }
}

std::string CompleteBrokerUri(const std::string& text) {
    const BrokerPlace place = PlaceOf(text);
    return std::string(kBrokerScheme) + "://" + place.host + ":" + place.port;
}

}  // namespace kvo::brokerd
