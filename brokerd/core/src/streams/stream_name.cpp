#include "streams/stream_name.h"

#include "kvo/os/hex.h"

#include <xxhash.h>

#include <algorithm>

namespace kvo::brokerd {
namespace {

constexpr std::size_t kReadableBytes = 40;
constexpr std::size_t kQuotedBytes = 64;

bool IsAlphanumeric(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool IsNameCharacter(char c) {
    return IsAlphanumeric(c) ||
           std::string_view("-._~!$&'()*+,;=:@/").find(c) != std::string_view::npos;
}

// "." and ".." do not stay as they are in a URI's path (RFC 3986, 5.2.4).
bool HasDotSegment(std::string_view name) {
    for (std::size_t begin = 0; begin <= name.size();) {
        const std::size_t end = std::min(name.find('/', begin), name.size());
        const std::string_view segment = name.substr(begin, end - begin);
        if (segment == "." || segment == "..") {
            return true;
        }
        begin = end + 1;
    }
    return false;
}

}  // namespace

bool IsWellFormedName(std::string_view name) {
    return !name.empty() && name.size() <= kMaxNameBytes &&
           std::all_of(name.begin(), name.end(), IsNameCharacter) && !HasDotSegment(name);
}

std::string FileNameOf(const StreamName& stream) {
    const std::string_view text = stream;
    const XXH128_hash_t digest = XXH3_128bits(text.data(), text.size());
    std::string name = os::ToHex(digest.high64) + os::ToHex(digest.low64);
    name += '-';
    for (const char c : text.substr(0, kReadableBytes)) {
        name += IsAlphanumeric(c) || c == '-' || c == '.' ? c : '_';
    }
    return name.append(kStreamFileSuffix);
}

std::string Quoted(std::string_view text) {
    std::string quoted = "\"";
    for (const char c : text.substr(0, kQuotedBytes)) {
        quoted += c >= ' ' && c <= '~' ? c : '?';
    }
    return quoted + (text.size() > kQuotedBytes ? "...\"" : "\"");
}

std::string Titled(const StreamName& stream) {
    return "stream " + Quoted(stream);
}

}  // namespace kvo::brokerd
