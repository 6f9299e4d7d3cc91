#pragma once

#include "core/transfer_state.h"

#include <boost/property_tree/ptree.hpp>

#include <optional>
#include <string>

namespace kvo {

/// The configuration file's path, or empty, with a warning, when KVO_TRANSFERCONFIG_PATH is unset.
[[nodiscard]] std::string ConfigFilePath(TransferState& state);

/// Reads the configuration file; empty, with a warning, when it cannot be read.
/// @param class_name of the reading object, for the log.
[[nodiscard]] std::optional<boost::property_tree::ptree> ReadConfigFile(
    TransferState& state, const std::string& class_name, const std::string& path);

/// Takes `reply_time` (seconds) from the file as it stands. Throws
/// boost::property_tree::ptree_error when it is missing or no integer.
void ReadReplyTime(TransferState& state, const boost::property_tree::ptree& file);

/// Puts a reply time that is too low back to the default, with a warning.
void CheckReplyTime(TransferState& state);

}  // namespace kvo
