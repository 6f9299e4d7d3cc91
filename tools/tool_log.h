#pragma once

#include "kvo/KvoLogger.h"

#include <log4cplus/logger.h>

#include <string>

namespace kvo::tools {

/// The log of library and middleware on standard error: everything when verbose; else nothing
/// while the command begins and ends (it reports what went wrong in its own words), and errors in
/// between.
class ToolLog {
public:
    explicit ToolLog(bool verbose);

    /// The registration is through: what the library reports from now on, nobody else does.
    void ShowErrors();
    /// Before unregistering: a heartbeat that comes after it is an error of no interest.
    void HideErrors();

    /// The end of a message about a registration that the broker let pass: " failed" and why the
    /// stream's file could not be used, if that is the reason.
    std::string WhyFailed() const;

    KvoLogger* logger() { return &kvo_logger_; }

private:
    const bool verbose_;
    log4cplus::Logger log_;
    log4cplus::SharedAppenderPtr output_;
    log4cplus::SharedAppenderPtr faults_;
    KvoLogger kvo_logger_;
};

}  // namespace kvo::tools
