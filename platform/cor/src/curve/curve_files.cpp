#include "curve/key_size.h"
#include "curve/name_value_file.h"
#include "gorm/cor/curve.h"
#include "gorm/cor/errors.h"
#include "kvo/os/file_descriptor.h"

#include <zmq.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace gorm::cor {
namespace {

using KeyText = std::array<char, kKeyCharacters + 1>;

bool IsKey(const std::string& text) {
    std::array<unsigned char, kKeyBytes> bytes;
    return text.size() == kKeyCharacters && zmq_z85_decode(bytes.data(), text.c_str()) != nullptr;
}

// A mistake in a secret file may be a part of the secret, so it is not shown.
[[noreturn]] void Refuse(const std::string& path, const std::string& fault) {
    throw Error("key file " + path + ": " + fault);
}

}  // namespace

CurveKeys DrawCurveKeys() {
    KeyText public_key;
    KeyText secret_key;
    if (zmq_curve_keypair(public_key.data(), secret_key.data()) != 0) {
        throw Error(std::string("no keys: ") + zmq_strerror(zmq_errno()));
    }
    return {public_key.data(), secret_key.data()};
}

void WriteCurveKeys(const std::string& path, const CurveKeys& keys) {
    const std::string text =
        "# Keep this file to yourself. Give away the public key alone.\n"
        "public-key = " +
        keys.public_key + "\nsecret-key = " + keys.secret_key + "\n";
    const kvo::os::FileDescriptor file(
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file.valid()) {
        Refuse(path, std::strerror(errno));
    }
    const bool written =
        ::write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
        ::fsync(file.get()) == 0;
    const int error = errno;
    if (!written) {
        ::unlink(path.c_str());
        Refuse(path, std::strerror(error));
    }
}

CurveKeys ReadCurveKeys(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) {
        Refuse(path, std::strerror(errno));
    }
    if (status.st_uid != 0 && status.st_uid != ::geteuid()) {
        Refuse(path, "it belongs to user " + std::to_string(status.st_uid));
    }
    if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
        Refuse(path, "others than its owner can use it; chmod 600 helps");
    }
    const auto values = ReadNameValueFile(path);
    const auto secret = values.find("secret-key");
    if (secret == values.end() || !IsKey(secret->second)) {
        Refuse(path, "it has no line \"secret-key = \" and 40 characters of a key");
    }
    KeyText public_key;
    if (zmq_curve_public(public_key.data(), secret->second.c_str()) != 0) {
        Refuse(path, "its secret key is not usable");
    }
    return {public_key.data(), secret->second};
}

AllowedKeys ReadAllowedKeys(const std::string& path) {
    std::ifstream file(path);
    if (!file) {
        Refuse(path, std::strerror(errno));
    }
    AllowedKeys allowed;
    std::size_t number = 0;
    for (std::string line; std::getline(file, line);) {
        ++number;
        std::istringstream words(line);
        std::string name;
        std::string key;
        std::string rest;
        words >> name >> key >> rest;
        if (name.empty() || name[0] == '#') {
            continue;
        }
        if (!IsKey(key) || !rest.empty()) {
            Refuse(path, "line " + std::to_string(number) + " is not a name and a public key");
        }
        if (!allowed.emplace(key, name).second) {
            Refuse(path, "line " + std::to_string(number) + " has the key of " + allowed[key]);
        }
    }
    return allowed;
}

}  // namespace gorm::cor
