#include "report.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace kvo::bench {
namespace {

double MedianOf(std::vector<double> values) {
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

}  // namespace

void Report::Print() const {
    std::printf("%-24s %-22s %9s %-14s %12s %12s %12s\n", "system", "mode", "bytes", "metric",
                "median", "lowest", "highest");
    for (const auto& [row, values] : values_) {
        const auto [lowest, highest] = std::minmax_element(values.begin(), values.end());
        std::printf("%-24s %-22s %9lld %-14s %12.6g %12.6g %12.6g %s\n", row.system.c_str(),
                    row.mode.c_str(), static_cast<long long>(row.payload_bytes), row.metric.c_str(),
                    MedianOf(values), *lowest, *highest, row.unit.c_str());
    }
}

void Report::WriteJson(const std::string& path) const {
    std::ofstream file(path);
    for (const auto& [row, values] : values_) {
        const auto [lowest, highest] = std::minmax_element(values.begin(), values.end());
        file << nlohmann::json{{"system", row.system},
                               {"mode", row.mode},
                               {"payload_bytes", row.payload_bytes},
                               {"metric", row.metric},
                               {"unit", row.unit},
                               {"median", MedianOf(values)},
                               {"min", *lowest},
                               {"max", *highest},
                               {"runs", values.size()}}
             << '\n';
    }
    if (!file.flush()) {
        throw std::runtime_error("writing " + path + " failed");
    }
}

}  // namespace kvo::bench
