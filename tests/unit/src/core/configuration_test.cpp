#include "kvo/KvoDataTransferFactory.h"
#include "probes.h"

#include <boost/property_tree/exceptions.hpp>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

namespace kvo::test {
namespace {

// The configuration file of this process, for as long as the object lives.
class ConfigFile {
public:
    explicit ConfigFile(const std::string& content) {
        std::ofstream(path()) << content;
        setenv("KVO_TRANSFERCONFIG_PATH", directory_.path().c_str(), 1);
    }
    ConfigFile(const ConfigFile&) = delete;
    ConfigFile& operator=(const ConfigFile&) = delete;
    ~ConfigFile() { unsetenv("KVO_TRANSFERCONFIG_PATH"); }
    std::string path() const { return directory_.path() / "datatransferlib.ini"; }

private:
    const TempDirectory directory_;
};

const LogLine kAgeTooLow{
    3, "max_age_data_sample should be at least 2000ms! Reset to default value (10000ms)."};
const LogLine kReplyTooLow{3, "reply_time should be at least 2s! Reset to default value (6s)."};
const LogLine kNoFile{3, "Error parsing ini file. Using default values!"};

std::string Section(const std::string& lines) {
    return "; a comment\n[other]\nreply_time = 99\n[datatransferlib]\n" + lines;
}

TEST(Configuration, ValueBelowItsBoundIsResetToTheDefault) {
    const struct {
        const char* content;
        Lines age_warning;
        Lines reply_warning;
        int max_age;
        int reply_time;
    } cases[] = {
        {"max_age_data_sample = 2000\nreply_time = 2\n", {}, {}, 2000, 2},
        {"  reply_time=600\nmax_age_data_sample = 86400000\n", {}, {}, 86400000, 600},
        {"max_age_data_sample = 1999\nreply_time = 6\n", {kAgeTooLow}, {}, 10000, 6},
        {"max_age_data_sample = 2000\nreply_time = 1\n", {}, {kReplyTooLow}, 2000, 6},
        {"max_age_data_sample = -1\nreply_time = -5\n", {kAgeTooLow}, {kReplyTooLow}, 10000, 6},
    };
    for (const auto& c : cases) {
        const ConfigFile file(Section(c.content));
        const LogLine reply_time{1,
                                 "reply time for COR clients [s]: " + std::to_string(c.reply_time)};
        CapturedLog log;
        KvoDataTransferFactory::CreatePublisher(log.kvo_logger());
        Lines expected{{1, "KvoDataPublisher: config file: " + file.path()}};
        expected.insert(expected.end(), c.reply_warning.begin(), c.reply_warning.end());
        expected.push_back(reply_time);
        EXPECT_EQ(log.lines(), expected) << c.content;

        log.Clear();
        KvoDataTransferFactory::CreateSubscriber(log.kvo_logger());
        expected = {{1, "KvoDataSubscriber: config file: " + file.path()}};
        expected.insert(expected.end(), c.age_warning.begin(), c.age_warning.end());
        expected.insert(expected.end(), c.reply_warning.begin(), c.reply_warning.end());
        expected.push_back({1, "max age data sample [ms]: " + std::to_string(c.max_age)});
        expected.push_back(reply_time);
        EXPECT_EQ(log.lines(), expected) << c.content;
    }
}

TEST(Configuration, MissingOrMalformedValueThrowsFromTheConstructor) {
    for (const char* content :
         {"max_age_data_sample = 3000\n", "max_age_data_sample = 3000\nreply_time = six\n",
          "max_age_data_sample = 3000\nreply_time = 6.5\n"}) {
        const ConfigFile file(Section(content));
        CapturedLog log;
        EXPECT_THROW(KvoDataTransferFactory::CreatePublisher(log.kvo_logger()),
                     boost::property_tree::ptree_error)
            << content;
        EXPECT_THROW(KvoDataTransferFactory::CreateSubscriber(log.kvo_logger()),
                     boost::property_tree::ptree_error)
            << content;
    }
    const ConfigFile file(Section("reply_time = 6\nmax_age_data_sample = nonsense\n"));
    CapturedLog log;
    EXPECT_NO_THROW(KvoDataTransferFactory::CreatePublisher(log.kvo_logger()));
    EXPECT_THROW(KvoDataTransferFactory::CreateSubscriber(log.kvo_logger()),
                 boost::property_tree::ptree_bad_data);
}

TEST(Configuration, UnreadableFileLeavesTheDefaults) {
    CapturedLog log;
    KvoDataTransferFactory::CreateSubscriber(log.kvo_logger());
    EXPECT_EQ(log.lines(), Lines({{3, "KVO_TRANSFERCONFIG_PATH not initialized!"},
                                  {1, "KvoDataSubscriber: config file: "},
                                  kNoFile,
                                  {1, "max age data sample [ms]: 10000"},
                                  {1, "reply time for COR clients [s]: 6"}}));
    setenv("KVO_TRANSFERCONFIG_PATH", "", 1);  // set, though empty
    TransferProbe object(log.kvo_logger());
    EXPECT_EQ(object.GetConfigFilePath(), "/datatransferlib.ini");

    const ConfigFile file("[datatransferlib\nreply_time = 9\n");
    log.Clear();
    KvoDataTransferFactory::CreatePublisher(log.kvo_logger());
    EXPECT_EQ(log.lines(), Lines({{1, "KvoDataPublisher: config file: " + file.path()},
                                  kNoFile,
                                  {1, "reply time for COR clients [s]: 6"}}));
}

}  // namespace
}  // namespace kvo::test
