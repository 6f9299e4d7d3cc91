#include "streams/admission.h"

#include "streams/stream_name.h"

namespace kvo::brokerd {

Verdict Admission::OfPublisher(const std::string& stream, bool known, std::size_t streams) const {
    if (!IsWellFormedName(stream)) {
        return {kIllFormedName, Quoted(stream) +
                                    " cannot name a stream: 1 to 255 letters, digits and "
                                    "-._~!$&'()*+,;=:@/, without . and .. between slashes"};
    }
    return OfStream(stream, known, streams);
}

Verdict Admission::OfSubscriber(const std::string& stream, const std::string& uuid, bool known,
                                std::size_t streams) const {
    if (!IsWellFormedName(stream) || !IsWellFormedName(uuid)) {
        return {kIllFormedName,
                Quoted(stream) + " cannot name a stream, or " + Quoted(uuid) + " a subscriber"};
    }
    return OfStream(stream, known, streams);
}

Verdict Admission::OfStream(const std::string& stream, bool known, std::size_t streams) const {
    if (closed_) {
        return {kLimitReached, "stream " + Quoted(stream) +
                                   ": the broker is being drained and takes no registrations"};
    }
    if (!known && streams >= max_streams_) {
        return {kLimitReached, "stream " + Quoted(stream) + ": there are already " +
                                   std::to_string(streams) + " streams, at most " +
                                   std::to_string(max_streams_) + " are possible"};
    }
    return {};
}

}  // namespace kvo::brokerd
