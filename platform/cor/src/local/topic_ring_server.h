#pragma once

#include "kvo/os/file_access.h"
#include "kvo/os/mapped_file.h"
#include "kvo/os/thread_bound.h"
#include "local/topic_ring_layout.h"
#include "local/topic_signal.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace gorm::cor::ps {

/// The server's end of a local topic: a ring of its events in shared memory (topic_ring_layout.h).
/// Threads: one.
class TopicRingServer {
public:
    /// Makes the ring and puts it in place. Throws std::system_error, or Error for a path or a
    /// sample that is too long, and leaves nothing behind then.
    /// @param notification the encoded sample that is not kept as an event but only notified of.
    [[nodiscard]] static std::unique_ptr<TopicRingServer> Make(const std::string& directory,
                                                               std::string_view topic,
                                                               std::string_view notification,
                                                               const kvo::os::FileAccess& access);
    TopicRingServer(const TopicRingServer&) = delete;
    TopicRingServer& operator=(const TopicRingServer&) = delete;
    /// Closes the ring and removes it.
    ~TopicRingServer();

    /// @return false: the ring cannot hold this sample, since the topic has too many or too long
    /// ones.
    [[nodiscard]] bool Publish(std::string_view sample);
    /// What has been published so far, for a reader that goes on here after using a socket.
    std::string Position() const;
    /// Whether clients have to send notifications to the server too, for subscribers at sockets.
    void SetRelayed(bool relayed);

    /// Closes and removes what an earlier server of the directory has left.
    static void RemoveAll(const std::string& directory);

private:
    TopicRingServer(std::string events_path, kvo::os::MappedFile events, SystemVMemory signal);
    ring::EventsFile& events() const { return events_.as<ring::EventsFile>(); }
    std::optional<std::uint32_t> TextOf(std::string_view sample);

    const kvo::os::ThreadBound thread_;
    const std::string events_path_;
    kvo::os::MappedFile events_;
    TopicSignal signal_;
    std::uint64_t head_ = 0;
};

}  // namespace gorm::cor::ps
