#pragma once

#include <stdexcept>
#include <string>

namespace kvo::tools {

enum class ExitCode : int {
    kSuccess = 0,
    kFailure = 1,
    kUsage = 2,
    kNothingThere = 3,  // no such stream, or no data in time
    kBrokerUnreachable = 4,
    kRefused = 5,
};

/// Ends a command: the text says what was tried and what to do, the code tells a script why.
class CommandFailure : public std::runtime_error {
public:
    CommandFailure(ExitCode code, const std::string& what)
        : std::runtime_error(what), code_(code) {}
    ExitCode code() const { return code_; }

private:
    ExitCode code_;
};

}  // namespace kvo::tools
