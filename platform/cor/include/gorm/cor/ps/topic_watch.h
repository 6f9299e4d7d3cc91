#pragma once

#include "gorm/cor/export.h"

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

namespace gorm::cor::ps {

/// Sleeps until something happens to a local topic of a publisher of this process.
/// Threads: one, but for Wake().
class GORM_COR_EXPORT TopicWatch {
public:
    /// Null: the topic has no memory. @param topic_directory the publisher's (Serving).
    [[nodiscard]] static std::unique_ptr<TopicWatch> Open(const std::string& topic_directory,
                                                          std::string_view path);
    virtual ~TopicWatch();

    /// From now on Sleep() returns for what happens after this.
    virtual void Refresh() = 0;
    virtual void Sleep(std::chrono::milliseconds at_most) = 0;
    /// Ends a Sleep(). Any thread.
    virtual void Wake() = 0;
    /// The topic has left this memory.
    virtual bool closed() const = 0;
};

}  // namespace gorm::cor::ps
