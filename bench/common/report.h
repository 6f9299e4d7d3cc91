#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kvo::bench {

/// What a row of the result is about.
struct Row {
    std::string system;  // what was measured
    std::string mode;    // in which way
    std::int64_t payload_bytes = 0;
    std::string metric;
    std::string unit;
    auto operator<=>(const Row&) const = default;
};

/// Values of several runs, row by row. Threads: one.
class Report {
public:
    void Add(const Row& row, double value) { values_[row].push_back(value); }

    /// A table for people, on standard output: median, lowest and highest of the runs.
    void Print() const;
    /// One JSON object a line with system, mode, payload_bytes, metric, unit, median, min, max and
    /// runs. Throws std::runtime_error naming a file that cannot be written.
    void WriteJson(const std::string& path) const;

private:
    std::map<Row, std::vector<double>> values_;
};

}  // namespace kvo::bench
