#include "configuration.h"

#include "command_line.h"
#include "temp_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace kvo::brokerd {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class ConfigurationTest : public ::testing::Test {
protected:
    std::string FileWith(const std::string& text) const {
        std::ofstream(file_) << text;
        return file_;
    }
    std::string FaultOf(const std::string& text) const {
        try {
            Configuration configuration;
            ReadFile(FileWith(text), configuration);
            return {};
        } catch (const ConfigurationError& error) {
            return error.what();
        }
    }
    static Configuration Read(std::vector<std::string> arguments) {
        std::vector<char*> argv;
        for (std::string& argument : arguments) {
            argv.push_back(argument.data());
        }
        int code = 0;
        const auto line = ReadCommandLine(static_cast<int>(argv.size()), argv.data(), code);
        if (!line) {
            throw ConfigurationError("exit code " + std::to_string(code));
        }
        return line->configuration;
    }

    const test::TempDirectory place_;
    const std::string file_ = (place_.path() / "broker.toml").string();
};

TEST_F(ConfigurationTest, EveryMistakeInAFileIsNamedWithLineAndColumn) {
    const struct {
        const char* text;
        const char* place;
        const char* fault;
    } cases[] = {
        {"port = 5000\nfrobnicate = 1\n", ":2:1: ", "unknown key \"frobnicate\""},
        {"port = 70000", ":1:8: port: ", "\"70000\" is not possible: a whole number from 0"},
        {"\n  port = 5.5", ":2:10: port: ", "a text or a whole number"},
        {"heartbeat-timeout = 2", ":1:21: ", "from 3"},
        {"memory-budget = \"much\"", ":1:17: ", "such as"},
        {"log-level = \"loud\"", ":1:13: ", "debug, info"},
        {"port = 1\nport = 2\n", ":2:", "port"},
        {"[section]\nport = 1\n", ":1:2: ", "unknown key \"section\""},
        {"port = ", ":1:", ""},
        {"access-rules = \"allow publish * to local\"", ":1:16: ", "a list of texts"},
        {"access-rules = [1]", ":1:16: access-rules: ", "a list of texts"},
        {"access-rules = [\"permit\"]", ":1:16: ", "\"permit\" is no rule"},
    };
    for (const auto& wrong : cases) {
        const std::string fault = FaultOf(wrong.text);
        EXPECT_THAT(fault, StartsWith(file_ + wrong.place)) << wrong.text;
        EXPECT_THAT(fault, HasSubstr(wrong.fault)) << wrong.text;
    }
    Configuration configuration;
    EXPECT_THROW(ReadFile((place_.path() / "missing").string(), configuration), ConfigurationError);
}

TEST_F(ConfigurationTest, OptionsGoBeforeTheEnvironmentAndThatBeforeTheFile) {
    FileWith("max-streams = 1\nmemory-budget = \"2MiB\"\nlog-level = \"error\"\nport = 1\n");
    ASSERT_EQ(::setenv("KVO_BROKER_MAX_STREAMS", "2", 1), 0);
    ASSERT_EQ(::setenv("KVO_BROKER_LOG_LEVEL", "debug", 1), 0);
    const Configuration read = Read({"kvo-broker", "--config", file_, "--max-streams", "3"});
    ASSERT_EQ(::unsetenv("KVO_BROKER_MAX_STREAMS"), 0);
    ASSERT_EQ(::unsetenv("KVO_BROKER_LOG_LEVEL"), 0);
    EXPECT_EQ(read.broker.max_streams, 3U);
    EXPECT_EQ(read.log_level, "debug");
    EXPECT_EQ(read.broker.memory_budget_bytes, 2U << 20);
    EXPECT_EQ(read.broker.port, 1);
    EXPECT_THAT(NeedingRestart(Configuration{}, read), ElementsAre("port"));
    EXPECT_THROW(Read({"kvo-broker", "--heartbeat-period", "10"}), ConfigurationError);
}

TEST_F(ConfigurationTest, ListsComeFromEachSourceInItsOwnForm) {
    const std::string a = "allow publish a;b to local";
    const std::string b = "allow subscribe * to local";
    FileWith("access-rules = [\"" + a + "\", \"" + b + "\"]\n");
    const auto rules = [this](std::vector<std::string> options) {
        options.insert(options.begin(), {"kvo-broker", "--config", file_});
        return Read(options).broker.access_rules;
    };
    EXPECT_THAT(rules({}), ElementsAre(a, b));
    ASSERT_EQ(::setenv("KVO_BROKER_ACCESS_RULES", (b + ";" + b).c_str(), 1), 0);
    EXPECT_THAT(rules({}), ElementsAre(b, b));
    EXPECT_THAT(rules({"--access-rules", a, "--port", "1", "--access-rules", b}),
                ElementsAre(a, b));
    ASSERT_EQ(::setenv("KVO_BROKER_ACCESS_RULES", "nonsense", 1), 0);
    EXPECT_THROW(rules({}), ConfigurationError);
    ASSERT_EQ(::unsetenv("KVO_BROKER_ACCESS_RULES"), 0);
}

// Whoever changes a setting changes what is told of it.
TEST_F(ConfigurationTest, TheDocumentsTellEverySettingAsItIs) {
    const auto content = [](const char* name) {
        std::ifstream file(std::string(KVO_DOCUMENTS) + "/" + name);
        return std::string(std::istreambuf_iterator<char>(file), {});
    };
    const std::string table = content("configuration.md");
    std::string page = content("kvo-broker.8");
    std::string::size_type at = 0;
    while ((at = page.find("\\-", at)) != std::string::npos) {
        page.erase(at, 1);
    }
    std::size_t rows = 0;
    for (at = 0; (at = table.find("\n| `", at)) != std::string::npos; ++at) {
        ++rows;
    }
    EXPECT_EQ(rows, Settings().size());
    for (const Setting& setting : Settings()) {
        const std::string initial = setting.text(Configuration{});
        EXPECT_THAT(table,
                    HasSubstr(std::string("| `") + setting.key + "` | " +
                              (initial.empty() ? "" : "`" + initial + "`") + " | " +
                              (setting.at_run_time ? "yes" : "") + " | " + setting.help + " |"));
        EXPECT_THAT(page, HasSubstr(std::string(".BR --") + setting.key + " , " +
                                    EnvironmentNameOf(setting.key) + "\n" + setting.help + ".\n"));
    }
}

}  // namespace
}  // namespace kvo::brokerd
