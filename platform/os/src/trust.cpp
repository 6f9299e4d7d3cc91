#include "kvo/os/trust.h"

#include <cerrno>
#include <cstring>
#include <optional>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kvo::os {
namespace {

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

}  // namespace

bool IsTrustedUser(uid_t owner) {
    if (owner == 0 || owner == ::geteuid()) {
        return true;
    }
    // Asked for once, and only where it matters: the answer may come from another host.
    static const std::optional<uid_t> service = FindServiceUser();
    return owner == service;
}

std::string CheckTrust(const std::string& directory) {
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

}  // namespace kvo::os
