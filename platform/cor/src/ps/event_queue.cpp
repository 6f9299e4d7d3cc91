#include "ps/event_queue.h"

#include "transport/bounds.h"

#include <cstddef>
#include <exception>
#include <utility>

namespace gorm::cor::ps {

std::shared_ptr<EventQueue::Slot> EventQueue::listener() const {
    const std::lock_guard lock(mutex_);
    return slot_;
}

std::shared_ptr<EventQueue::Slot> EventQueue::SetListener(std::shared_ptr<Slot> slot) {
    const std::lock_guard lock(mutex_);
    return std::exchange(slot_, std::move(slot));
}

void EventQueue::RemoveListener(const std::shared_ptr<Slot>& slot) {
    const std::lock_guard lock(mutex_);
    if (slot_ == slot) {
        slot_ = nullptr;
    }
}

void EventQueue::Add(std::string_view sample) {
    if (const SampleCodec::Decoded* const event = Decode(sample)) {
        Keep(*event);
    }
}

[[gnu::hot]] void EventQueue::Pass(std::string_view sample, Slot& current) {
    const SampleCodec::Decoded* const event = Decode(sample);
    if (event != nullptr && !current.Run(*event)) {
        Keep(*event);
    }
}

void EventQueue::Deliver() {
    thread_.here();
    while (!waiting_.empty()) {
        const std::shared_ptr<Slot> current = listener();
        if (current == nullptr) {
            return;
        }
        if (current->Run(waiting_.front())) {
            waiting_.pop_front();
        }
    }
}

// Valid until the next call. Null: it is no sample. Most events of a topic say the same, which is
// decoded once.
[[gnu::hot]] const SampleCodec::Decoded* EventQueue::Decode(std::string_view sample) {
    thread_.here();
    if (decoded_.sample != nullptr && sample == decoded_text_) {
        return &decoded_;
    }
    decoded_text_ = sample;
    try {
        decoded_ = codec_->Decode(sample);
    } catch (const std::exception&) {
        decoded_.sample = nullptr;
    }
    if (decoded_.sample == nullptr) {
        CountFault("it is no sample");
        return nullptr;
    }
    return &decoded_;
}

void EventQueue::Keep(const SampleCodec::Decoded& event) {
    if (waiting_.size() >= static_cast<std::size_t>(kSampleQueue)) {
        waiting_.pop_front();
        CountFault("there is no listener, and newer ones came");
    }
    waiting_.push_back(event);
}

}  // namespace gorm::cor::ps
