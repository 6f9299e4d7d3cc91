#include "streams/admission.h"

#include "streams/stream_name.h"

#include <string>

namespace kvo::brokerd {

Verdict Admission::CheckPublisher(const StreamName& stream) const {
    if (!IsWellFormedName(stream)) {
        return {kIllFormedName, Quoted(stream) +
                                    " cannot name a stream: 1 to 255 letters, digits and "
                                    "-._~!$&'()*+,;=:@/, without . and .. between slashes"};
    }
    return CheckStream(stream);
}

Verdict Admission::CheckSubscriber(const StreamName& stream, const SubscriberId& subscriber) const {
    if (!IsWellFormedName(stream) || !IsWellFormedName(subscriber)) {
        return {kIllFormedName, Quoted(stream) + " cannot name a stream, or " + Quoted(subscriber) +
                                    " a subscriber"};
    }
    return CheckStream(stream);
}

Verdict Admission::CheckStream(const StreamName& stream) const {
    if (closed_) {
        return {kLimitReached,
                Titled(stream) + ": the broker is being drained and accepts no registrations"};
    }
    const std::size_t streams = table_.streams().size();
    if (const std::uint32_t limit = table_.settings().max_streams;
        table_.Find(stream) == nullptr && streams >= limit) {
        return {kLimitReached, Titled(stream) + ": there are already " + std::to_string(streams) +
                                   " streams, at most " + std::to_string(limit) + " are possible"};
    }
    return {};
}

}  // namespace kvo::brokerd
