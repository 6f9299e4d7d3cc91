#pragma once

#include <memory>
#include <string>

namespace kvo {

class KvoMemoryAccessor;
class StreamReporter;

/// Where a publisher's samples go. Constant: it is replaced as a whole, so that one reference
/// covers a call of WriteData or PublishData.
struct SamplePath {
    std::string data_stream_identifier;
    std::shared_ptr<KvoMemoryAccessor> accessor;  // null: no shared memory
    std::shared_ptr<StreamReporter> reporter;     // null: no broker client
};

}  // namespace kvo
