#pragma once

#include "gorm/cor/export.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace gorm::cor::ps {

/// A topic of a publisher of this host that can be reached through memory: a client notifies the
/// subscribers itself that there is something new. Threads: any.
class GORM_COR_EXPORT LocalTopic {
public:
    /// Null: the host is another one, or the publisher at the port offers no such memory that this
    /// process may use. @param path the topic's, with its first slash.
    [[nodiscard]] static std::unique_ptr<LocalTopic> Find(const std::string& host,
                                                          std::uint16_t port,
                                                          std::string_view path);
    /// In the publisher's own process, which knows the directory (Serving). Null: the topic has no
    /// memory.
    [[nodiscard]] static std::unique_ptr<LocalTopic> Open(const std::string& topic_directory,
                                                          std::string_view path);
    virtual ~LocalTopic();

    /// Notifies of one sample (Publisher::OpenLocal). What the caller has written before is visible
    /// to a subscriber that is woken. Takes no memory, never blocks.
    virtual void Notify() = 0;
    /// Whether the publisher must be notified as well, since there are subscribers at sockets. To
    /// be called after Notify(): the publisher notifies later subscribers of what exists.
    virtual bool relayed() const = 0;
    /// It reaches no subscriber any more.
    virtual bool closed() const = 0;
};

}  // namespace gorm::cor::ps
