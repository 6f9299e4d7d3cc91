#pragma once

#include "kvo/memory/sample_view.h"
#include "kvo/memory_export.h"

#include <memory>
#include <string>

namespace kvo {

/// The one writer of a stream file whose samples come from another host: readers see the numbers
/// that the samples have there, also when some were lost in transit.
/// Threads: one at a time.
class KVO_MEMORY_EXPORT ImportWriter {
public:
    /// Takes the writer's role of the file. Throws std::runtime_error naming file and fault, and
    /// std::system_error when this process cannot join the directory.
    explicit ImportWriter(const std::string& path);
    ImportWriter(const ImportWriter&) = delete;
    ImportWriter& operator=(const ImportWriter&) = delete;
    ~ImportWriter();

    /// Copies the sample into the next free slot and makes it the newest. @return false: it is
    /// not there, since it does not fit its slot, the file is retired, or hostile readers hold
    /// every slot. Never blocks.
    [[nodiscard]] bool Write(const SampleView& sample);

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace kvo
