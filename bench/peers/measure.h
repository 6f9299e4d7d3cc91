#pragma once

#include "flow.h"
#include "peers.h"
#include "report.h"

#include <chrono>

namespace kvo::bench {

/// How long and how often; the same for every system.
struct Effort {
    std::chrono::milliseconds latency{4000};
    std::chrono::milliseconds rate{2000};
    std::chrono::milliseconds fan_out{2000};
    std::chrono::milliseconds processor{5000};
};

/// Each measures one system once and adds its figures. What fails is reported as a row of its own
/// and on standard error, and ends nothing else.
void MeasureLatency(const System& system, std::size_t bytes, const Effort& effort, Report& report);
void MeasureRate(const System& system, std::size_t bytes, std::size_t buffers, const Effort& effort,
                 Report& report);
void MeasureFanOut(const System& system, std::size_t readers, const Effort& effort, Report& report);
void MeasureProcessorTime(const System& system, const Effort& effort, Report& report);

/// A copy from one of eight sources into one of the buffers in turn: the limit of every system.
void MeasureCopy(std::size_t bytes, Report& report);

/// Sample buffers of every system for samples of this size.
std::size_t BuffersFor(std::size_t bytes);

}  // namespace kvo::bench
