#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <utility>

namespace gorm::cor::ps {

/// What happened to the instance (the key) of a topic that an event is about.
enum class InstanceEvent : std::uint32_t { kCreated = 0, kUpdated = 1, kDisposed = 2 };

/// One event of a topic: a sample, or none when only the state of the instance changed. Events that
/// say the same may share their sample.
template <class T>
class DataEvent {
public:
    DataEvent(std::shared_ptr<const T> sample, InstanceEvent instance_event)
        : sample_(std::move(sample)), instance_event_(instance_event) {}
    bool hasData() const { return sample_ != nullptr; }
    const std::shared_ptr<const T>& getData() const { return sample_; }
    InstanceEvent instance_event() const { return instance_event_; }

private:
    std::shared_ptr<const T> sample_;
    InstanceEvent instance_event_;
};

/// Which instances a filter lets pass.
enum class FilterMode : std::uint32_t {
    kInstance = 0,  // the one of the filter's sample
    kAll = 2,       // any
};

/// Which events of a topic reach a listener.
template <class T>
struct DataEventFilter {
    std::shared_ptr<T> instance;  // its key names the instance; used by kInstance
    FilterMode mode = FilterMode::kAll;
    std::set<InstanceEvent> instance_events;
};

}  // namespace gorm::cor::ps
