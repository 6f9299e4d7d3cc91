#include "kvo/os/file_access.h"

#include "kvo/os/regular_file.h"
#include "kvo/os/system_error.h"

#include <array>
#include <cerrno>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kvo::os {
namespace {

std::string NameOfGroup(gid_t id) {
    std::array<char, 4096> buffer;
    group entry{};
    group* found = nullptr;
    ::getgrgid_r(id, &entry, buffer.data(), buffer.size(), &found);
    return found == nullptr ? std::to_string(id) : found->gr_name;
}

}  // namespace

void SetPermissions(int fd, std::uint32_t mode, std::optional<std::uint32_t> group,
                    const std::string& name) {
    if (group && ::fchown(fd, static_cast<uid_t>(-1), *group) != 0) {
        ThrowErrno(errno, "giving " + name + " to group " + NameOfGroup(*group));
    }
    if (::fchmod(fd, mode) != 0) {
        ThrowErrno(errno, "setting the mode of " + name);
    }
}

void ThrowOpening(const std::string& path) {
    const int error = errno;
    std::string allowed;
    if (error == EACCES) {
        // A directory that may not be searched hides its files, and is for the same group.
        struct stat status {};
        const std::string directory = DirectoryOf(path);
        const bool seen = ::stat(path.c_str(), &status) == 0;
        if (seen || ::stat(directory.c_str(), &status) == 0) {
            allowed = (seen ? "" : " in " + directory) + ", which is for user " +
                      std::to_string(status.st_uid) +
                      ((status.st_mode & S_IRWXG) == 0
                           ? " alone"
                           : " and group " + NameOfGroup(status.st_gid) +
                                 (seen && (status.st_mode & S_IWGRP) == 0 ? " (to read)" : ""));
        }
    }
    ThrowErrno(error, "opening " + path + allowed);
}

}  // namespace kvo::os
