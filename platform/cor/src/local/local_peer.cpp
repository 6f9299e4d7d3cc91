#include "local/local_peer.h"

#include <charconv>

namespace gorm::cor {
namespace {

// Takes the number after the last colon away from the text.
template <class T>
bool TakeLast(std::string_view& text, T& number) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string_view::npos) {
        return false;
    }
    const std::string_view digits = text.substr(colon + 1);
    const char* const end = digits.data() + digits.size();
    const auto [rest, error] = std::from_chars(digits.data(), end, number);
    text = text.substr(0, colon);
    return error == std::errc() && rest == end;
}

}  // namespace

std::optional<LocalPeer> ParseLocalPeer(std::string_view address) {
    LocalPeer peer;
    if (!TakeLast(address, peer.process) || !TakeLast(address, peer.group) ||
        !TakeLast(address, peer.user)) {
        return std::nullopt;
    }
    return peer;
}

}  // namespace gorm::cor
