#pragma once

#include <string>

namespace kvo::brokerd {

/// Under which a stream of a broker is exported: kvo/BROKER/STREAM, where an underscore is doubled
/// and what can not stand in the name of a topic is one and two hexadecimal digits.
std::string TopicOf(const std::string& broker, const std::string& stream);

/// The topic of a stream for one of the brokers that import it. @param importer as it calls itself
/// when it asks for the stream.
std::string OwnTopicOf(const std::string& topic, const std::string& importer);

}  // namespace kvo::brokerd
