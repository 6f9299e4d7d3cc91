#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace kvo::test {

/// A directory of its own in shared memory, gone with the object.
class TempDirectory {
public:
    TempDirectory();
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;
    ~TempDirectory();

    const std::filesystem::path& path() const { return path_; }
    /// Names of what lies in it, at any depth.
    std::vector<std::string> Content() const;

private:
    std::filesystem::path path_;
};

}  // namespace kvo::test
