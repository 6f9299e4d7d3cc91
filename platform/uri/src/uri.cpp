#include "network/uri.hpp"

#include <uriparser/Uri.h>

#include <algorithm>

namespace network {

uri_syntax_error::uri_syntax_error(const std::string& what) : std::runtime_error(what) {}

uri::uri(const std::string& text) : text_(text) {
    UriUriA parsed;
    const char* error_position = nullptr;
    // A zero byte ends the text for the parser, so it is looked for here.
    if (text_.find('\0') != std::string::npos ||
        uriParseSingleUriExA(&parsed, text_.data(), text_.data() + text_.size(), &error_position) !=
            URI_SUCCESS) {
        throw uri_syntax_error("not a URI: \"" + text_ + "\"");
    }
    // What is empty the parser lets point anywhere.
    const auto range = [this](const UriTextRangeA& part) {
        return part.first == part.afterLast
                   ? Range{}
                   : Range{static_cast<std::size_t>(part.first - text_.data()),
                           static_cast<std::size_t>(part.afterLast - part.first)};
    };
    scheme_ = range(parsed.scheme);
    host_ = range(parsed.hostText);
    port_ = range(parsed.portText);
    uriFreeUriMembersA(&parsed);
    if (scheme_.size == 0 || host_.size == 0) {
        throw uri_syntax_error("URI without scheme or host: \"" + text_ + "\"");
    }
    // From the first slash behind the host to the query or the fragment.
    const std::size_t authority = host_.begin + host_.size;
    const std::size_t end = std::min(text_.find_first_of("?#", authority), text_.size());
    const std::size_t slash = text_.find('/', authority);
    if (slash < end) {
        path_ = {slash, end - slash};
    }
}

}  // namespace network
