#include "kvo/os/hex.h"

namespace kvo::os {
namespace {

constexpr char kDigits[] = "0123456789abcdef";

}  // namespace

std::string ToHex(const void* bytes, std::size_t count) {
    std::string text;
    text.reserve(2 * count);
    for (const auto* byte = static_cast<const unsigned char*>(bytes); count > 0; ++byte, --count) {
        text += kDigits[*byte >> 4];
        text += kDigits[*byte & 15];
    }
    return text;
}

std::string ToHex(std::uint64_t number) {
    std::string text(16, '0');
    for (auto digit = text.rbegin(); digit != text.rend(); ++digit, number >>= 4) {
        *digit = kDigits[number & 15];
    }
    return text;
}

}  // namespace kvo::os
