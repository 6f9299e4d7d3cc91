#pragma once

#include "gorm/cor/export.h"
#include "gorm/cor/ps/data_event.h"
#include "gorm/cor/ps/sample_codec.h"
#include "gorm/cor/rr/listener_registration.h"

#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace gorm::cor::ps {

/// The transport of one subscription. Events wait from its creation until a listener is there and
/// are then delivered, in order, on a thread of its own.
class GORM_COR_EXPORT TopicReader {
public:
    using Listener = std::function<void(const SampleCodec::Decoded&)>;
    virtual ~TopicReader();
    /// One listener at a time; a new one replaces the one before.
    [[nodiscard]] virtual rr::ListenerRegistration Listen(Listener listener) = 0;
};

/// A subscription of samples of type T. Destroying it ends the delivery: it waits for a run of
/// the listener in progress, except from inside that run.
template <class T>
class Subscriber {
public:
    using Listener = std::function<void(Subscriber<T>&, const DataEvent<T>&)>;

    Subscriber(std::unique_ptr<TopicReader> reader, std::shared_ptr<const SampleCodec> codec)
        : codec_(std::move(codec)), reader_(std::move(reader)) {}

    std::shared_ptr<T> CreateSample() const {
        return std::static_pointer_cast<T>(codec_->Create());
    }

    /// Calls the listener for each event that the filter lets pass. What it throws is logged.
    [[nodiscard]] rr::ListenerRegistration AddDataListener(Listener listener,
                                                           DataEventFilter<T> filter) {
        std::string key(filter.mode == FilterMode::kInstance ? codec_->Key(filter.instance.get())
                                                             : "");
        return reader_->Listen([this, codec = codec_, key = std::move(key),
                                filter = std::move(filter),
                                listener = std::move(listener)](const SampleCodec::Decoded& event) {
            if (filter.instance_events.count(event.instance_event) == 0) {
                return;
            }
            if (filter.mode == FilterMode::kInstance && event.sample != nullptr &&
                codec->Key(event.sample.get()) != key) {
                return;
            }
            listener(*this, DataEvent<T>(std::static_pointer_cast<const T>(event.sample),
                                         event.instance_event));
        });
    }

private:
    std::shared_ptr<const SampleCodec> codec_;
    std::unique_ptr<TopicReader> reader_;  // last: its destruction ends the delivery first
};

}  // namespace gorm::cor::ps
