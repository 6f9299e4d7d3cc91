#include "curve/name_value_file.h"

#include "gorm/cor/errors.h"

#include <cerrno>
#include <cstring>
#include <fstream>

namespace gorm::cor {
namespace {

std::string Trimmed(const std::string& text) {
    const std::size_t first = text.find_first_not_of(" \t\r");
    return first == std::string::npos
               ? std::string()
               : text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

}  // namespace

std::map<std::string, std::string> ReadNameValueFile(const std::string& path) {
    std::ifstream file(path);
    if (!file) {
        throw Error("cannot read " + path + ": " + std::strerror(errno));
    }
    std::map<std::string, std::string> values;
    std::size_t number = 0;
    for (std::string line; std::getline(file, line);) {
        ++number;
        line = Trimmed(line);
        if (line.empty() || line[0] == '#') {
            continue;
        }
        const std::size_t sign = line.find('=');
        const std::string name = Trimmed(line.substr(0, sign));
        if (sign == std::string::npos || name.empty() ||
            !values.emplace(name, Trimmed(line.substr(sign + 1))).second) {
            throw Error(path + ", line " + std::to_string(number) +
                        ": not \"name = value\", or a name again");
        }
    }
    return values;
}

}  // namespace gorm::cor
