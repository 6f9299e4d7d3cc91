#pragma once

#include <functional>
#include <utility>

namespace gorm::cor::rr {

/// Keeps a listener registered: carries the function that removes it, which runs once, when the
/// registration is destroyed, replaced or released. Movable, not copyable. It may outlive the
/// client or subscriber that it came from. Removing waits for a run of the listener that is in
/// progress, except from inside that run.
class ListenerRegistration {
public:
    ListenerRegistration() = default;
    explicit ListenerRegistration(std::function<void()> unregister)
        : unregister_(std::move(unregister)) {}
    ListenerRegistration(ListenerRegistration&& other) noexcept
        : unregister_(std::exchange(other.unregister_, nullptr)) {}
    ListenerRegistration& operator=(ListenerRegistration&& other) noexcept {
        if (this != &other) {
            Release();
            unregister_ = std::exchange(other.unregister_, nullptr);
        }
        return *this;
    }
    ListenerRegistration(const ListenerRegistration&) = delete;
    ListenerRegistration& operator=(const ListenerRegistration&) = delete;
    ~ListenerRegistration() { Release(); }

    /// Removes the listener now; nothing when there is none.
    void Release() noexcept {
        if (auto unregister = std::exchange(unregister_, nullptr)) {
            unregister();
        }
    }
    explicit operator bool() const noexcept { return static_cast<bool>(unregister_); }

private:
    std::function<void()> unregister_;
};

}  // namespace gorm::cor::rr
