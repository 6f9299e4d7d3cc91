#include "core/configuration.h"

#include <boost/property_tree/ini_parser.hpp>

#include <cstdlib>

namespace kvo {

std::string ConfigFilePath(TransferState& state) {
    const char* const directory = std::getenv("KVO_TRANSFERCONFIG_PATH");
    if (directory == nullptr) {
        state.Log(3, "KVO_TRANSFERCONFIG_PATH not initialized!");
        return {};
    }
    return std::string(directory) + "/datatransferlib.ini";
}

std::optional<boost::property_tree::ptree> ReadConfigFile(TransferState& state,
                                                          const std::string& class_name,
                                                          const std::string& path) {
    state.Log(1, class_name + ": config file: " + path);
    try {
        boost::property_tree::ptree file;
        boost::property_tree::read_ini(path, file);
        return file;
    } catch (const boost::property_tree::ini_parser_error&) {
        state.Log(3, "Error parsing ini file. Using default values!");
    } catch (const std::exception& error) {
        state.LogException(error, (class_name + ": ReadIni()").c_str(), 3);
        state.Log(3, "Using default values!");
    }
    return std::nullopt;
}

void ReadReplyTime(TransferState& state, const boost::property_tree::ptree& file) {
    state.reply_time = file.get<int>("datatransferlib.reply_time");
}

void CheckReplyTime(TransferState& state) {
    if (state.reply_time < state.min_reply_time) {
        state.Log(3, "reply_time should be at least 2s! Reset to default value (6s).");
        state.reply_time = state.default_reply_time;
    }
}

}  // namespace kvo
