#include "temp_directory.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <system_error>

namespace kvo::test {

TempDirectory::TempDirectory() {
    std::string name = "/dev/shm/kvo-test-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), name);
    }
    path_ = name;
}

TempDirectory::~TempDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::vector<std::string> TempDirectory::Content() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(path_)) {
        names.push_back(entry.path().lexically_relative(path_).string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace kvo::test
