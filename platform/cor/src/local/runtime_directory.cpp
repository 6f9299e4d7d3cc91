#include "local/runtime_directory.h"

#include "gorm/cor/lock_file.h"
#include "transport/log.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <pwd.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace gorm::cor {
namespace {

constexpr const char* kServiceDirectory = "/run/kvo";
constexpr const char* kServiceUser = "kvo";

std::optional<uid_t> FindServiceUser() {
    passwd entry{};
    passwd* found = nullptr;
    char buffer[16 * 1024];
    if (::getpwnam_r(kServiceUser, &entry, buffer, sizeof buffer, &found) != 0 ||
        found == nullptr) {
        return std::nullopt;
    }
    return entry.pw_uid;
}

std::string OwnDirectory() {
    const char* const session = std::getenv("XDG_RUNTIME_DIR");
    return session != nullptr && session[0] == '/' ? std::string(session) + "/kvo"
                                                   : "/tmp/kvo-" + std::to_string(::geteuid());
}

}  // namespace

bool IsTrustedUser(uid_t owner) {
    if (owner == 0 || owner == ::geteuid()) {
        return true;
    }
    // Asked for once, and only where it matters: the answer may come from another host.
    static const std::optional<uid_t> service = FindServiceUser();
    return owner == service;
}

std::vector<RuntimeDirectory> RuntimeDirectories() {
    if (const char* const named = std::getenv(kRuntimeDirectoryVariable);
        named != nullptr && named[0] != '\0') {
        return {{named, false}};
    }
    return {{kServiceDirectory, false}, {OwnDirectory(), true}};
}

std::string DistrustOf(const std::string& directory) {
    struct stat status {};
    if (::lstat(directory.c_str(), &status) != 0) {
        return directory + ": " + std::strerror(errno);
    }
    if (!S_ISDIR(status.st_mode)) {
        return directory + " is no directory";
    }
    if (!IsTrustedUser(status.st_uid)) {
        return directory + " belongs to user " + std::to_string(status.st_uid);
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return directory + " can be written by others";
    }
    return {};
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
            IsTrustedUser(status.st_uid) && DistrustOf(directory.path).empty() &&
            ::faccessat(AT_FDCWD, path.c_str(), W_OK, AT_EACCESS) == 0 &&
            LockFile::IsHeld(LockPath(directory.path, port))) {
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
            IsTrustedUser(status.st_uid) && DistrustOf(directory.path).empty() &&
            LockFile::IsHeld(LockPath(directory.path, port))) {
            std::error_code error;
            const auto topics = std::filesystem::read_symlink(path, error);
            const std::string distrust = error ? path + ": " + error.message() : DistrustOf(topics);
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
