#pragma once

#include <string>
#include <string_view>
#include <utility>

namespace kvo {

/// A text that names one kind of thing and is not taken for the name of another kind. May be any
/// text: what comes over the wire is checked by the operation that it is for.
template <class Tag>
class Identifier {
public:
    Identifier() = default;
    explicit Identifier(std::string text) : text_(std::move(text)) {}

    const std::string& text() const { return text_; }
    operator std::string_view() const { return text_; }

    friend bool operator==(const Identifier& a, const Identifier& b) { return a.text_ == b.text_; }
    friend bool operator<(const Identifier& a, const Identifier& b) { return a.text_ < b.text_; }

    /// For MessagePack, by what it converts to any type.
    template <class Packed>
    void msgpack_unpack(Packed packed) {
        std::string text = packed;
        text_ = std::move(text);
    }

private:
    std::string text_;
};

using StreamName = Identifier<struct StreamNameTag>;
using SubscriberId = Identifier<struct SubscriberIdTag>;

}  // namespace kvo
