#pragma once

#include <cstdlib>
#include <string_view>

namespace kvo::test {

/// Whether the brokers of this run of the tests let publishers wake subscribers through memory:
/// KVO_TEST_LOCAL_TOPICS says so, true or false; the build runs what depends on it both ways.
/// @param usual where it says nothing.
inline bool LocalTopics(bool usual) {
    const char* const chosen = std::getenv("KVO_TEST_LOCAL_TOPICS");
    return chosen == nullptr ? usual : std::string_view(chosen) == "true";
}

}  // namespace kvo::test
