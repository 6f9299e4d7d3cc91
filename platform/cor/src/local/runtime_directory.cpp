#include "local/runtime_directory.h"

#include "kvo/os/lock_file.h"
#include "kvo/os/trust.h"
#include "transport/log.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace gorm::cor {
namespace {

constexpr const char* kServiceDirectory = "/run/kvo";

std::string OwnDirectory() {
    const char* const session = std::getenv("XDG_RUNTIME_DIR");
    return session != nullptr && session[0] == '/' ? std::string(session) + "/kvo"
                                                   : "/tmp/kvo-" + std::to_string(::geteuid());
}

}  // namespace

std::vector<RuntimeDirectory> RuntimeDirectories() {
    if (const char* const named = std::getenv(kRuntimeDirectoryVariable);
        named != nullptr && named[0] != '\0') {
        return {{named, false}};
    }
    return {{kServiceDirectory, false}, {OwnDirectory(), true}};
}

std::string LockPath(const std::string& directory, std::uint16_t port) {
    return directory + "/" + std::to_string(port) + ".lock";
}

std::string SocketPath(const std::string& directory, std::uint16_t port) {
    return directory + "/" + std::to_string(port) + ".sock";
}

std::string TopicsPath(const std::string& directory, std::uint16_t port) {
    return directory + "/" + std::to_string(port) + ".topics";
}

std::string FindLocalEndpoint(std::uint16_t port) {
    for (const RuntimeDirectory& directory : RuntimeDirectories()) {
        const std::string path = SocketPath(directory.path, port);
        struct stat status {};
        if (::lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode) &&
            kvo::os::IsTrustedUser(status.st_uid) && kvo::os::CheckTrust(directory.path).empty() &&
            ::faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) == 0 &&
            kvo::os::LockFile::IsHeld(LockPath(directory.path, port))) {
            return "ipc://" + path;
        }
    }
    return {};
}

std::string FindLocalTopics(std::uint16_t port) {
    for (const RuntimeDirectory& directory : RuntimeDirectories()) {
        const std::string path = TopicsPath(directory.path, port);
        struct stat status {};
        if (::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode) &&
            kvo::os::IsTrustedUser(status.st_uid) && kvo::os::CheckTrust(directory.path).empty() &&
            kvo::os::LockFile::IsHeld(LockPath(directory.path, port))) {
            std::error_code error;
            const auto topics = std::filesystem::read_symlink(path, error);
            const std::string distrust =
                error ? path + ": " + error.message() : kvo::os::CheckTrust(topics);
            if (distrust.empty()) {
                return topics;
            }
            WarnOnce("no local topics, their events go over sockets: " + distrust);
            return {};
        }
    }
    return {};
}

}  // namespace gorm::cor
