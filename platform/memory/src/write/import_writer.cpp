#include "kvo/memory/import_writer.h"

#include "kvo/memory/process_lock.h"
#include "kvo/os/regular_file.h"
#include "write/sample_writer.h"

namespace kvo {

class ImportWriter::Impl {
public:
    explicit Impl(const std::string& path)
        : writer(Segment::Open(path, Segment::Access::kWrite),
                 ProcessLock::ForDirectory(os::DirectoryOf(path))) {}

    SampleWriter writer;
};

ImportWriter::ImportWriter(const std::string& path) : impl_(std::make_unique<Impl>(path)) {}

ImportWriter::~ImportWriter() = default;

bool ImportWriter::Write(const ImportedSample& sample) {
    const StreamGeometry& geometry = impl_->writer.segment().geometry();
    if (sample.payload_bytes > geometry.max_payload_bytes ||
        sample.metadata_bytes > geometry.max_metadata_bytes) {
        return false;
    }
    SampleInput input;
    input.payload = sample.payload;
    input.payload_bytes = sample.payload_bytes;
    input.metadata = sample.metadata;
    input.metadata_bytes = sample.metadata_bytes;
    input.sample_tag = sample.sample_tag;
    input.topic_id = sample.topic_id;
    input.timestamp_ms = sample.timestamp_ms;
    input.source_sequence = sample.sequence_number;
    return impl_->writer.Write(input) == SampleWriter::Outcome::kWritten;
}

}  // namespace kvo
