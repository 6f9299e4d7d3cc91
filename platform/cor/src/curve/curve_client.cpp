#include "curve/curve_client.h"

#include "curve/key_size.h"
#include "gorm/cor/errors.h"

namespace gorm::cor {
namespace {

constexpr const char* kSecretKeyFile = "secret-key-file";
const std::string kServerKey = "server-key";

}  // namespace

void CurveClient::Secure(zmq::socket_t& socket) const {
    socket.set(zmq::sockopt::curve_serverkey, server_key);
    socket.set(zmq::sockopt::curve_publickey, keys.public_key);
    socket.set(zmq::sockopt::curve_secretkey, keys.secret_key);
}

std::shared_ptr<const CurveClient> CurveClientOf(const Properties& properties,
                                                 const std::string& host) {
    for (const auto& [name, value] : properties) {
        const bool is_key = name == kServerKey || name.rfind(kServerKey + "@", 0) == 0;
        if (!is_key && name != kSecretKeyFile) {
            throw Error("unknown property \"" + name + "\"");
        }
        if (is_key && value.size() != kKeyCharacters) {
            throw Error("property \"" + name + "\": a public key has 40 characters");
        }
    }
    auto server_key = properties.find(kServerKey + "@" + host);
    if (server_key == properties.end()) {
        server_key = properties.find(kServerKey);
    }
    if (server_key == properties.end()) {
        return nullptr;
    }
    const auto file = properties.find(kSecretKeyFile);
    if (file == properties.end()) {
        throw Error("property \"" + server_key->first + "\" needs \"" + kSecretKeyFile + "\" too");
    }
    return std::make_shared<CurveClient>(
        CurveClient{ReadCurveKeys(file->second), server_key->second});
}

}  // namespace gorm::cor
