#pragma once

#include "streams/admission.h"
#include "streams/publishers.h"
#include "streams/stream_table.h"
#include "streams/verdict.h"

#include <cstdint>
#include <string>

namespace kvo::brokerd {

/// The streams that come from other brokers: their files, and what their subscribers are told.
/// Threads: one.
class Imports {
public:
    Imports(StreamTable& table, const Admission& admission, Publishers& publishers)
        : table_(table), admission_(admission), publishers_(publishers) {}

    /// The stream is imported from now on, or its next segment is: makes its file. Its subscribers
    /// are told of a publisher.
    Verdict Begin(const StreamName& stream, const std::string& broker,
                  std::uint32_t max_payload_bytes, std::uint32_t retained_samples, bool checksum);
    /// The publisher of an imported stream cannot be reached; the file stays.
    void OnLost(const StreamName& stream, const std::string& why);
    /// It is back, with the same segment.
    void OnBack(const StreamName& stream);
    /// The import is over, and its file goes. For a stream that is imported.
    void End(const StreamName& stream);

private:
    StreamTable& table_;
    const Admission& admission_;
    Publishers& publishers_;
};

}  // namespace kvo::brokerd
