#include "rr/listener_strand.h"

#include "kvo/os/fork_guard.h"
#include "transport/listener_slot.h"
#include "transport/poll_loop.h"

#include <mutex>
#include <utility>
#include <vector>

namespace gorm::cor::rr {

using Slot = ListenerSlot<bool>;

struct ListenerStrand::State {
    std::mutex mutex;
    bool closed = false;                       // under the mutex
    std::vector<std::shared_ptr<Slot>> slots;  // under the mutex
    std::unique_ptr<PollLoop> loop;            // under the mutex; null before the first listener
};

ListenerStrand::ListenerStrand() : state_(std::make_shared<State>()) {}

ListenerStrand::~ListenerStrand() = default;

ListenerRegistration ListenerStrand::Add(std::function<void(bool)> listener) {
    auto slot = std::make_shared<Slot>(std::move(listener));
    {
        const std::lock_guard lock(state_->mutex);
        if (state_->closed) {
            return ListenerRegistration();
        }
        // Here and not with the first event: a process without room for a thread learns it from
        // its own call, and the I/O thread has nothing to do that can fail.
        if (state_->loop == nullptr) {
            state_->loop = std::make_unique<PollLoop>("cor-listener");
        }
        state_->slots.push_back(slot);
    }
    return ListenerRegistration([state = std::weak_ptr<State>(state_), slot] {
        const std::shared_ptr<State> alive = kvo::os::InForkedChild() ? nullptr : state.lock();
        if (alive != nullptr) {
            const std::lock_guard lock(alive->mutex);
            std::erase(alive->slots, slot);
        }
        slot->Remove();
    });
}

void ListenerStrand::Deliver(bool connected) {
    const std::lock_guard lock(state_->mutex);
    if (state_->closed || state_->slots.empty()) {
        return;
    }
    state_->loop->Post([slots = state_->slots, connected] {
        for (const auto& slot : slots) {
            slot->Run(connected);
        }
    });
}

void ListenerStrand::Close() noexcept {
    if (kvo::os::InForkedChild()) {
        return;
    }
    std::vector<std::shared_ptr<Slot>> slots;
    std::unique_ptr<PollLoop> loop;
    {
        const std::lock_guard lock(state_->mutex);
        state_->closed = true;
        slots.swap(state_->slots);
        loop.swap(state_->loop);
    }
    for (const auto& slot : slots) {
        slot->Remove();
    }
    // The loop ends here: joined, or by itself when this is one of its listeners' runs.
}

}  // namespace gorm::cor::rr
