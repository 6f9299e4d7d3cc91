#include "streams/quota.h"

namespace kvo::brokerd {
namespace {

std::string FaultOf(const std::string& whose, const char* what, std::uint64_t used,
                    std::uint64_t asked, std::uint64_t limit) {
    if (limit == 0 || asked == 0 || used + asked <= limit) {
        return {};
    }
    return whose + " asks for " + std::to_string(asked) + " " + what + " and uses " +
           std::to_string(used) + ", at most " + std::to_string(limit) + " are possible";
}

}  // namespace

std::string Quota::WhyNot(const std::string& whose, const Usage& used, const Usage& asked) const {
    const std::string fault = FaultOf(whose, "more streams", used.streams, asked.streams, streams);
    return fault.empty() ? FaultOf(whose, "bytes of shared memory", used.bytes, asked.bytes, bytes)
                         : fault;
}

}  // namespace kvo::brokerd
