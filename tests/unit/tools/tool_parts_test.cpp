#include "exit_codes.h"
#include "output_stream.h"
#include "sample_source.h"
#include "telemetry.h"
#include "temp_directory.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace kvo::tools {
namespace {

using std::chrono::seconds;

class ToolParts : public testing::Test {
protected:
    std::string Write(const std::string& name, const std::string& content) {
        const std::filesystem::path path = directory_.path() / name;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path) << content;
        return path.string();
    }

    void WriteCounters(const std::string& cpu, const std::string& network) {
        Write("stat", "cpu  " + cpu + " 0 0\ncpu0 1 2 3\n");
        Write("loadavg", "0.50 1.25 2.00 1/100 4711\n");
        Write("meminfo", "MemTotal:       1000 kB\nMemFree: 1 kB\nMemAvailable:    400 kB\n");
        Write("net/dev",
              "Inter-| Receive | Transmit\n face |bytes |bytes\n"
              "    lo: 9999 0 0 0 0 0 0 0 9999 0 0 0 0 0 0 0\n" +
                  network);
    }

    test::TempDirectory directory_;
    StopSignal stop_;
};

std::vector<std::string> AllOf(SampleSource& source, StopSignal& stop) {
    std::vector<std::string> samples;
    while (const auto sample = source.Next(stop)) {
        samples.emplace_back(sample->begin(), sample->end());
    }
    return samples;
}

TEST_F(ToolParts, LinesAreSplitWhereverTheBufferEndsAndOneThatIsTooLongIsNamed) {
    struct Case {
        const char* content;
        std::vector<std::string> lines;
    };
    for (const Case& c :
         {Case{"", {}}, Case{"\n", {""}}, Case{"one", {"one"}}, Case{"one\n", {"one"}},
          Case{"a\n\nbc\n", {"a", "", "bc"}},
          Case{"12345678\n1\n12345678\n123", {"12345678", "1", "12345678", "123"}}}) {
        LineSource source(InputStream(Write("lines", c.content)), 8);
        EXPECT_EQ(AllOf(source, stop_), c.lines) << c.content;
    }
    LineSource source(InputStream(Write("lines", "short\n123456789\n")), 8);
    try {
        AllOf(source, stop_);
        FAIL() << "the long line was taken";
    } catch (const CommandFailure& failure) {
        EXPECT_EQ(failure.code(), ExitCode::kFailure);
        EXPECT_NE(std::string(failure.what()).find("line 2 "), std::string::npos) << failure.what();
    }
}

TEST_F(ToolParts, TelemetryRatesComeFromTwoReadings) {
    Telemetry telemetry(directory_.path().string());
    const std::chrono::system_clock::time_point now{seconds(1'700'000'000)};
    const std::chrono::steady_clock::time_point tick{seconds(100)};

    WriteCounters("100 0 100 700 100 0 0 0", "  eth0:1000 0 0 0 0 0 0 0 500 0\n");
    auto line = nlohmann::json::parse(telemetry.Sample(now, tick));
    EXPECT_EQ(line["time_ms"], 1'700'000'000'000);
    EXPECT_EQ(line["cpu_percent"], 0.0);
    EXPECT_EQ(line["load_1m"], 0.5);
    EXPECT_EQ(line["memory_total_bytes"], 1'024'000);
    EXPECT_EQ(line["memory_available_bytes"], 409'600);
    EXPECT_EQ(line["network_received_bytes_per_s"], 0);

    // 200 ticks later, 50 of them busy; two seconds later, on two interfaces.
    WriteCounters("140 0 110 840 110 0 0 0",
                  "  eth0:2000 0 0 0 0 0 0 0 700 0\n wlan0:1000 0 0 0 0 0 0 0 0 0\n");
    line = nlohmann::json::parse(telemetry.Sample(now + seconds(2), tick + seconds(2)));
    EXPECT_EQ(line["cpu_percent"], 25.0);
    EXPECT_EQ(line["network_received_bytes_per_s"], 1000);
    EXPECT_EQ(line["network_sent_bytes_per_s"], 100);

    // Counters that went back (an interface is gone) give no rate.
    WriteCounters("140 0 110 840 110 0 0 0", "");
    line = nlohmann::json::parse(telemetry.Sample(now + seconds(3), tick + seconds(3)));
    EXPECT_EQ(line["cpu_percent"], 0.0);
    EXPECT_EQ(line["network_received_bytes_per_s"], 0);
}

TEST_F(ToolParts, TelemetryNamesTheFileItCannotUnderstand) {
    for (const std::string broken : {"stat", "loadavg", "meminfo", "net/dev"}) {
        WriteCounters("1 2 3 4 5 6 7 8", "");
        Write(broken, "eth0: x\n");
        try {
            Telemetry(directory_.path().string()).Sample({}, {});
            FAIL() << broken << " was taken";
        } catch (const std::runtime_error& error) {
            EXPECT_NE(std::string(error.what()).find(broken), std::string::npos) << error.what();
        }
    }
}

TEST_F(ToolParts, OutputTellsWhenItCannotBeWritten) {
    EXPECT_THROW(OutputStream((directory_.path() / "no/such/place").string()), CommandFailure);
    std::string text = "text";
    std::array<iovec, 1> parts{iovec{text.data(), text.size()}};
    EXPECT_THROW(OutputStream("/dev/full").Write(parts, stop_), CommandFailure);
}

}  // namespace
}  // namespace kvo::tools
