#include "streams/publisher_key.h"

#include <array>
#include <cerrno>
#include <sys/random.h>
#include <system_error>

namespace kvo::brokerd {

std::string DrawPublisherKey() {
    std::array<unsigned char, 16> bytes;
    if (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
        throw std::system_error(errno, std::generic_category(), "drawing a publisher key");
    }
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string key;
    for (const unsigned char byte : bytes) {
        key += kDigits[byte >> 4];
        key += kDigits[byte & 15];
    }
    return key;
}

bool SameKey(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) {
        return false;
    }
    unsigned difference = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        difference |= static_cast<unsigned char>(a[i]) ^ static_cast<unsigned char>(b[i]);
    }
    return difference == 0;
}

}  // namespace kvo::brokerd
