#include "network/uri.hpp"

#include <uriparser/Uri.h>

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
    const auto range = [this](const UriTextRangeA& part) {
        return part.first == nullptr ? Range{}
                                     : Range{static_cast<std::size_t>(part.first - text_.data()),
                                             static_cast<std::size_t>(part.afterLast - part.first)};
    };
    scheme_ = range(parsed.scheme);
    host_ = range(parsed.hostText);
    port_ = range(parsed.portText);
    if (parsed.pathHead != nullptr) {
        // From the slash before the first segment to the end of the last one.
        path_ = range({parsed.pathHead->text.first - 1, parsed.pathTail->text.afterLast});
    }
    uriFreeUriMembersA(&parsed);
    if (scheme_.size == 0 || host_.size == 0) {
        throw uri_syntax_error("URI without scheme or host: \"" + text_ + "\"");
    }
}

}  // namespace network
