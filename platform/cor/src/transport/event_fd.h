#pragma once

namespace gorm::cor {

/// Wakes a thread that polls. Any thread.
class EventFd {
public:
    EventFd();  // throws Error
    EventFd(const EventFd&) = delete;
    EventFd& operator=(const EventFd&) = delete;
    ~EventFd();

    void Raise() noexcept;
    void Clear() noexcept;
    int get() const { return fd_; }

private:
    int fd_;
};

}  // namespace gorm::cor
