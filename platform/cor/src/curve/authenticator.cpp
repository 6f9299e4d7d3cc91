#include "curve/authenticator.h"

#include "curve/key_size.h"
#include "transport/bounds.h"
#include "transport/context.h"
#include "transport/sockets.h"

#include <array>
#include <cstdint>
#include <string_view>
#include <vector>

namespace gorm::cor {
namespace {

// Fixed by ZAP.
constexpr const char* kEndpoint = "inproc://zeromq.zap.01";
constexpr const char* kVersion = "1.0";
enum Frame {
    kRequestVersion,
    kRequestId,
    kDomain,
    kAddress,
    kRoutingId,
    kMechanism,
    kKey,
    kFrames
};

std::string TextOf(const zmq::message_t& key) {
    std::array<char, kKeyCharacters + 1> text{};
    return key.size() == kKeyBytes &&
                   zmq_z85_encode(text.data(), key.data<std::uint8_t>(), kKeyBytes) != nullptr
               ? text.data()
               : "";
}

}  // namespace

Authenticator::Authenticator(zmq::context_t& context)
    : socket_(MakeSocket(context, zmq::socket_type::rep, 0, kMaxRequestBytes)),
      refusals_("request for a peer") {
    socket_.bind(kEndpoint);
    loop_.Run([this] { loop_.Watch(socket_, [this] { Answer(); }); });
}

Authenticator& Authenticator::Get() {
    static auto* const authenticator = new Authenticator(transport_context());
    return *authenticator;
}

void Authenticator::Add(const CurveDomain& domain) {
    loop_.Run([&] { domains_[domain.name()] = &domain; });
}

void Authenticator::Remove(const CurveDomain& domain) {
    loop_.Run([&] { domains_.erase(domain.name()); });
}

bool Authenticator::IsAllowed(const std::vector<zmq::message_t>& request, std::string& user) {
    const auto domain = domains_.find(std::string(View(request[kDomain])));
    if (View(request[kRequestVersion]) != kVersion || domain == domains_.end()) {
        return false;
    }
    // Where a server asks for CURVE the transport lets no peer connect without, so this one uses a
    // Unix socket.
    if (View(request[kMechanism]) == "NULL") {
        return true;
    }
    const std::string key = request.size() == kFrames ? TextOf(request[kKey]) : std::string();
    if (domain->second->NameOf(key).empty()) {
        const std::string address(View(request[kAddress]));
        refusals_.Log(address,
                      "peer " + address + " refused: its public key " + key + " is not allowed");
        return false;
    }
    user = key;
    return true;
}

void Authenticator::Answer() {
    thread_.here();
    std::vector<zmq::message_t> request;
    while (Receive(socket_, request, kFrames)) {
        std::string user;
        const bool allowed = request.size() >= kKey && IsAllowed(request, user);
        const std::string_view id =
            request.size() > kRequestId ? View(request[kRequestId]) : std::string_view();
        // Version, request, status, text, user, metadata. The user is what servers know it by.
        const std::array<std::string_view, 6> answer{
            kVersion, id, allowed ? "200" : "400", allowed ? "OK" : "not allowed", user, ""};
        for (std::size_t i = 0; i < answer.size(); ++i) {
            socket_.send(zmq::buffer(answer[i]),
                         i + 1 < answer.size() ? zmq::send_flags::sndmore : zmq::send_flags::none);
        }
    }
}

}  // namespace gorm::cor
