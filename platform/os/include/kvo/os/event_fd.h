#pragma once

#include "kvo/os/file_descriptor.h"
#include "kvo/os_export.h"

namespace kvo::os {

/// Wakes a thread that polls. Any thread.
class KVO_OS_EXPORT EventFd {
public:
    EventFd();  // throws std::system_error

    void Raise() const noexcept;
    void Clear() const noexcept;
    int get() const { return fd_.get(); }

private:
    FileDescriptor fd_;
};

}  // namespace kvo::os
