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

bool ImportWriter::Write(const SampleView& sample) {
    const StreamGeometry& geometry = impl_->writer.segment().geometry();
    if (sample.payload_bytes > geometry.max_payload_bytes ||
        sample.metadata_bytes > geometry.max_metadata_bytes) {
        return false;
    }
    return impl_->writer.Write(sample) == SampleWriter::Outcome::kWritten;
}

}  // namespace kvo
