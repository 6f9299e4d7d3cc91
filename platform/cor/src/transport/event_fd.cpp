#include "transport/event_fd.h"

#include "gorm/cor/errors.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <sys/eventfd.h>
#include <unistd.h>

namespace gorm::cor {

EventFd::EventFd() : fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (fd_ < 0) {
        throw Error(std::string("no event descriptor: ") + std::strerror(errno));
    }
}

EventFd::~EventFd() {
    ::close(fd_);
}

void EventFd::Raise() noexcept {
    ::eventfd_write(fd_, 1);
}

void EventFd::Clear() noexcept {
    eventfd_t count = 0;
    ::eventfd_read(fd_, &count);
}

}  // namespace gorm::cor
