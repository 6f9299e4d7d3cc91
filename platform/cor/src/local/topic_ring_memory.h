#pragma once

#include "kvo/os/mapped_file.h"
#include "local/topic_ring_layout.h"
#include "local/topic_signal.h"

#include <optional>
#include <string>
#include <string_view>
#include <sys/ipc.h>

// Where the memory of a local topic lies, and how it is opened. Any thread.
namespace gorm::cor::ps {

inline constexpr const char* kEventsSuffix = ".events";

/// The path of a topic's events file.
std::string EventsPath(const std::string& directory, std::string_view topic);
/// The name that a signal of the directory has while it is made.
key_t SignalKey(const std::string& directory);

/// Throws std::system_error or std::runtime_error.
[[nodiscard]] kvo::os::MappedFile MapEvents(const std::string& path,
                                            kvo::os::MappedFile::Access access);
/// Attaches the signal that the events file at the path names. Throws Error.
[[nodiscard]] SystemVMemory AttachSignal(const ring::EventsFile& file, const std::string& path);

/// A ring as its readers and writers have it.
struct TopicRingMemory {
    /// None: there is no ring of the topic in the directory that can be used; why an existing one
    /// cannot be is logged once.
    [[nodiscard]] static std::optional<TopicRingMemory> Open(const std::string& directory,
                                                             std::string_view topic);

    const ring::EventsFile& events() const { return file.as<ring::EventsFile>(); }
    bool closed() const {
        // [ring-closed] Acquire: all events of the ring are visible.
        return events().closed.load(std::memory_order_acquire) != 0;
    }

    kvo::os::MappedFile file;
    TopicSignal signal;
};

}  // namespace gorm::cor::ps
