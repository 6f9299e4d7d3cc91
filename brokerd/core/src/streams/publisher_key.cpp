#include "streams/publisher_key.h"

#include "kvo/os/hex.h"
#include "kvo/os/random_bytes.h"

#include <array>

namespace kvo::brokerd {

std::string DrawPublisherKey() {
    std::array<unsigned char, 16> bytes;
    os::FillRandom(bytes.data(), bytes.size());
    return os::ToHex(bytes.data(), bytes.size());
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
