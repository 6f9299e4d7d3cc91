#pragma once

#include <map>
#include <string>

namespace gorm::cor {

/// Reads lines "name = value"; empty lines and those that begin with # are passed over. Throws
/// Error naming file and line.
std::map<std::string, std::string> ReadNameValueFile(const std::string& path);

}  // namespace gorm::cor
