#pragma once

#include <map>
#include <string>

namespace gorm::cor {

/// What concerns a client's connections, by name.
using Properties = std::map<std::string, std::string>;

}  // namespace gorm::cor
