#pragma once

#include "network/uri_export.h"

#include <stdexcept>
#include <string>
#include <string_view>

namespace network {

/// A text is not a URI, or has no scheme or no host.
class NETWORK_URI_EXPORT uri_syntax_error : public std::runtime_error {
public:
    explicit uri_syntax_error(const std::string& what);
};

/// A URI (RFC 3986) with scheme and host. Never normalised: the parts stand as given. The views
/// live as long as the object.
class NETWORK_URI_EXPORT uri {
public:
    /// Throws uri_syntax_error, whose text holds the URI.
    explicit uri(const std::string& text);

    const std::string& string() const { return text_; }
    std::string_view scheme() const { return Part(scheme_); }
    std::string_view host() const { return Part(host_); }
    std::string_view port() const { return Part(port_); }
    std::string_view path() const { return Part(path_); }
    bool has_port() const { return !port().empty(); }

private:
    struct Range {
        std::size_t begin = 0;
        std::size_t size = 0;
    };
    std::string_view Part(const Range& range) const {
        return std::string_view(text_).substr(range.begin, range.size);
    }

    std::string text_;
    Range scheme_, host_, port_, path_;
};

}  // namespace network
