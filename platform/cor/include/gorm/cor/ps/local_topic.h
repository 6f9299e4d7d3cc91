#pragma once

#include "gorm/cor/export.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace gorm::cor::ps {

/// A client's hold on a topic of a publisher of this host that has a way through memory: lets it
/// tell the subscribers itself that there is something new. Threads: any.
class GORM_COR_EXPORT LocalTopic {
public:
    /// Null: the host is another one, or the publisher at the port offers no such way that this
    /// process may use. @param path the topic's, with its first slash.
    static std::unique_ptr<LocalTopic> Find(const std::string& host, std::uint16_t port,
                                            std::string_view path);
    virtual ~LocalTopic();

    /// Tells of one counted sample (Publisher::OpenLocal). What the caller has written before is
    /// visible to who is told. Takes no memory, waits for nobody.
    virtual void Count() = 0;
    /// Whether the publisher must be told as well, since somebody listens at a socket. Asked after
    /// Count(): who comes later is told by the publisher of what is there.
    virtual bool relayed() const = 0;
    /// It leads to nobody any more.
    virtual bool closed() const = 0;
};

}  // namespace gorm::cor::ps
