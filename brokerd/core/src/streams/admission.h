#pragma once

#include "streams/verdict.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace kvo::brokerd {

/// Who may register at all, whatever is registered already: names and limits.
/// Threads: one.
class Admission {
public:
    explicit Admission(std::uint32_t max_streams) : max_streams_(max_streams) {}

    /// @param known whether the broker keeps the stream already. @param streams how many it keeps.
    Verdict OfPublisher(const std::string& stream, bool known, std::size_t streams) const;
    Verdict OfSubscriber(const std::string& stream, const std::string& uuid, bool known,
                         std::size_t streams) const;

    void set_max_streams(std::uint32_t max_streams) { max_streams_ = max_streams; }
    /// From now on nobody.
    void Close() { closed_ = true; }
    bool closed() const { return closed_; }

private:
    Verdict OfStream(const std::string& stream, bool known, std::size_t streams) const;

    std::uint32_t max_streams_;
    bool closed_ = false;
};

}  // namespace kvo::brokerd
