#pragma once

#include "configuration.h"

#include <optional>
#include <string>

namespace kvo::brokerd {

/// What the program was called with: file, environment and options put together.
struct CommandLine {
    Configuration configuration;
    std::string file;         // of the configuration; empty: none
    bool check_only = false;  // say whether the configuration is good, and end
};

inline constexpr int kUsage = 2;

/// Reads everything anew. @return nothing when help or a mistake was printed; then `exit_code` is
/// set. Throws ConfigurationError.
std::optional<CommandLine> ReadCommandLine(int argc, char** argv, int& exit_code);

}  // namespace kvo::brokerd
