#pragma once

#include "configuration.h"

#include <log4cplus/initializer.h>
#include <log4cplus/logger.h>

namespace kvo::brokerd {

/// The log of this process, to standard error or where a log4cplus file says.
class LogOutput {
public:
    /// Throws ConfigurationError when the log4cplus file cannot be read.
    explicit LogOutput(const Configuration& configuration);

    void SetLevel(const Configuration& configuration);
    const log4cplus::Logger& logger() const { return root_; }

private:
    const log4cplus::Initializer logging_;
    log4cplus::Logger root_;
};

}  // namespace kvo::brokerd
