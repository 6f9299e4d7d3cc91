#include "kvo/os/event_fd.h"

#include "kvo/os/system_error.h"

#include <cerrno>
#include <sys/eventfd.h>

namespace kvo::os {

EventFd::EventFd() : fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!fd_.valid()) {
        ThrowErrno(errno, "no event descriptor");
    }
}

void EventFd::Raise() const noexcept {
    ::eventfd_write(fd_.get(), 1);
}

void EventFd::Clear() const noexcept {
    eventfd_t count = 0;
    ::eventfd_read(fd_.get(), &count);
}

}  // namespace kvo::os
