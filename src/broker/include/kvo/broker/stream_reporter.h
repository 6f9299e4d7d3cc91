#pragma once

#include "kvo/broker_interface_export.h"

#include <cstdint>

namespace kvo {

/// Tells a broker and the subscribers about the samples of one stream, each by the shortest way
/// that the broker offers. Works on after its client is gone, but reaches no broker then.
/// Threads: any. No operation blocks; none allocates where the broker offers its memory.
class KVO_BROKER_INTERFACE_EXPORT StreamReporter {
public:
    StreamReporter() = default;
    StreamReporter(const StreamReporter&) = delete;
    StreamReporter& operator=(const StreamReporter&) = delete;
    virtual ~StreamReporter();

    /// DataBrokerRegistrationSync::ReportDataWritten, left out for a broker that reads these
    /// values in the stream file.
    virtual void ReportDataWritten(std::int32_t payload_size, std::int64_t written_ms) = 0;
    /// DataBrokerRegistrationSync::NotifyNewData, without the broker where subscribers can be
    /// woken through shared memory.
    virtual void NotifyNewData() = 0;
};

}  // namespace kvo
