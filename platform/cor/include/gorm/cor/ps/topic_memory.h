#pragma once

#include "gorm/cor/export.h"
#include "gorm/cor/ps/local_topic.h"

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

// The local topics of a publisher's own process, which knows their directory (Serving) and need
// not look for it.
namespace gorm::cor::ps {

/// As LocalTopic::Find. Null: the topic has no memory.
GORM_COR_EXPORT std::unique_ptr<LocalTopic> OpenLocalTopic(const std::string& topic_directory,
                                                           std::string_view path);

/// Sleeps until something happens to a topic. Threads: one, but for Wake().
class GORM_COR_EXPORT TopicWatch {
public:
    /// Null: the topic has no memory.
    static std::unique_ptr<TopicWatch> Open(const std::string& topic_directory,
                                            std::string_view path);
    virtual ~TopicWatch();

    /// From now on Sleep() returns for what happens after this.
    virtual void Look() = 0;
    virtual void Sleep(std::chrono::milliseconds at_most) = 0;
    /// Ends a Sleep(). Any thread.
    virtual void Wake() = 0;
    /// The topic has left this memory.
    virtual bool closed() const = 0;
};

}  // namespace gorm::cor::ps
