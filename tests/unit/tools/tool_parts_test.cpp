#include "exit_codes.h"
#include "output_stream.h"
#include "sample_source.h"
#include "temp_directory.h"

#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace kvo::tools {
namespace {

class ToolParts : public testing::Test {
protected:
    std::string Write(const std::string& name, const std::string& content) {
        const std::filesystem::path path = directory_.path() / name;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path) << content;
        return path.string();
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

TEST_F(ToolParts, OutputTellsWhenItCannotBeWritten) {
    EXPECT_THROW(OutputStream((directory_.path() / "no/such/place").string()), CommandFailure);
    std::string text = "text";
    std::array<iovec, 1> parts{iovec{text.data(), text.size()}};
    EXPECT_THROW(OutputStream("/dev/full").Write(parts, stop_), CommandFailure);
}

}  // namespace
}  // namespace kvo::tools
