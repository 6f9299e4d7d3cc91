#pragma once

#include "gorm/cor/ps/sample_codec.h"
#include "kvo/os/thread_bound.h"
#include "transport/listener_slot.h"
#include "transport/log.h"

#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace gorm::cor::ps {

/// The events of one subscription between their arrival and its listener: decoded, and kept while
/// there is none. Threads: the delivery thread, where nothing else is said.
class EventQueue {
public:
    using Slot = ListenerSlot<SampleCodec::Decoded>;

    /// @param text of the address, for messages.
    EventQueue(std::shared_ptr<const SampleCodec> codec, const std::string& text)
        : codec_(std::move(codec)), faults_("event of " + text) {}

    /// Any thread. Null: there is none.
    std::shared_ptr<Slot> listener() const;
    /// Any thread. @return the listener before.
    std::shared_ptr<Slot> SetListener(std::shared_ptr<Slot> slot);
    /// Any thread. Nothing when there is another one.
    void RemoveListener(const std::shared_ptr<Slot>& slot);

    bool empty() const { return waiting_.empty(); }
    /// Adds an encoded sample; the oldest event gives way in a full queue.
    void Add(std::string_view sample);
    /// With an empty queue: hands a sample to the listener, and adds it if that has been removed.
    void Pass(std::string_view sample, Slot& current);
    /// Hands what waits to the listener, until there is none.
    void Deliver();
    void CountFault(const char* reason) { faults_.LogDropped("", reason); }

private:
    const SampleCodec::Decoded* Decode(std::string_view sample);
    void Keep(const SampleCodec::Decoded& event);

    const std::shared_ptr<const SampleCodec> codec_;
    mutable std::mutex mutex_;
    std::shared_ptr<Slot> slot_;  // under the mutex

    // Delivery thread only
    const kvo::os::ThreadBound thread_;
    std::deque<SampleCodec::Decoded> waiting_;  // oldest first
    std::string decoded_text_;                  // what was decoded last
    SampleCodec::Decoded decoded_;              // of it
    FaultLog faults_;
};

}  // namespace gorm::cor::ps
