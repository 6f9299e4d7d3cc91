#include "kvo/broker/stream_description.h"

#include <charconv>
#include <cstddef>
#include <stdexcept>

namespace kvo {
namespace {

constexpr std::size_t kElements = 10;

template <class T>
T Number(const std::vector<std::string>& elements, std::size_t index) {
    const std::string& text = elements[index];
    T value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) {
        throw std::runtime_error("element " + std::to_string(index + 1) +
                                 " of the description is no number that is possible there");
    }
    return value;
}

}  // namespace

std::vector<std::string> EncodeDescription(const StreamDescription& description) {
    return {description.broker,
            description.published ? "1" : "0",
            std::to_string(description.epoch),
            std::to_string(description.max_payload_bytes),
            std::to_string(description.retained_samples),
            description.checksum ? "1" : "0",
            std::to_string(description.latency_ms),
            std::to_string(description.deadline_s),
            std::to_string(description.domain),
            description.topic};
}

StreamDescription DecodeDescription(const std::vector<std::string>& elements) {
    if (elements.size() < kElements) {
        throw std::runtime_error("the description has " + std::to_string(elements.size()) +
                                 " elements, " + std::to_string(kElements) + " are needed");
    }
    StreamDescription description;
    description.broker = elements[0];
    description.published = elements[1] == "1";
    description.epoch = Number<std::uint64_t>(elements, 2);
    description.max_payload_bytes = Number<std::uint32_t>(elements, 3);
    description.retained_samples = Number<std::uint32_t>(elements, 4);
    description.checksum = elements[5] == "1";
    description.latency_ms = Number<std::int32_t>(elements, 6);
    description.deadline_s = Number<std::int32_t>(elements, 7);
    description.domain = Number<std::uint32_t>(elements, 8);
    description.topic = elements[9];
    return description;
}

}  // namespace kvo
