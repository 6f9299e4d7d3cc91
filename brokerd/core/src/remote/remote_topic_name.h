#pragma once

#include <string>

namespace kvo::brokerd {

/// Under which a stream of a broker is exported: kvo/BROKER/STREAM, where an underscore is doubled
/// and what cannot stand in the name of a topic is one and two hexadecimal digits.
std::string TopicOf(const std::string& broker, const std::string& stream);

/// The topic of a stream for one of the brokers that import it. @param importer as it calls itself
/// in its requests.
std::string OwnTopicOf(const std::string& topic, const std::string& importer);

}  // namespace kvo::brokerd
