#include "remote/remote_topic_name.h"

#include "kvo/os/hex.h"

namespace kvo::brokerd {
namespace {

std::string Escaped(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        const bool stays =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '/';
        if (stays) {
            escaped += c;
        } else if (c == '_') {
            escaped += "__";
        } else {
            escaped += "_" + os::ToHex(&c, 1);
        }
    }
    return escaped;
}

}  // namespace

std::string TopicOf(const std::string& broker, const std::string& stream) {
    return "kvo/" + Escaped(broker) + "/" + Escaped(stream);
}

// No stream is called so: _t is not what anything is escaped to.
std::string OwnTopicOf(const std::string& topic, const std::string& importer) {
    return topic + "_to/" + Escaped(importer);
}

}  // namespace kvo::brokerd
