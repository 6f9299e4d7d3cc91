#include "wkp_topic_reader.h"

#include "bounds.h"
#include "curve_client.h"
#include "gorm/cor/errors.h"
#include "gorm/cor/process.h"
#include "listener_slot.h"
#include "log.h"
#include "runtime_directory.h"
#include "sockets.h"

#include <deque>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace gorm::cor::ps {
namespace {

zmq::socket_t MakeSubscription(zmq::context_t& context, const Address& address,
                               const std::string& topic) {
    zmq::socket_t socket =
        MakeSocket(context, zmq::socket_type::sub, kSampleQueue, kMaxSampleBytes);
    SetReconnect(socket);
    socket.set(zmq::sockopt::ipv6, address.ipv6);
    // Chosen once: whoever subscribes does so anew when the publisher was away, since its port may
    // be another one then.
    const std::string local = address.PrefersLocal() ? FindLocalEndpoint(address.port) : "";
    if (local.empty() && address.curve != nullptr) {
        address.curve->Secure(socket);
    }
    try {
        socket.connect(local.empty() ? address.endpoint : local);
    } catch (const zmq::error_t& error) {
        throw Error("\"" + address.text + "\" names no usable address: " + error.what());
    }
    socket.set(zmq::sockopt::subscribe, topic);
    return socket;
}

}  // namespace

/// What arrives, and who listens.
class WkpTopicReader::Feed {
public:
    using Slot = ListenerSlot<SampleCodec::Decoded>;

    Feed(zmq::context_t& context, const Address& address, std::shared_ptr<const SampleCodec> codec)
        : topic_(address.path + '\0'),
          codec_(std::move(codec)),
          socket_(MakeSubscription(context, address, topic_)),
          faults_("event of " + address.text) {}

    /// Any thread. @return the listener before.
    std::shared_ptr<Slot> SetListener(std::shared_ptr<Slot> slot) {
        const std::lock_guard lock(mutex_);
        return std::exchange(slot_, std::move(slot));
    }
    /// Any thread.
    void RemoveListener(const std::shared_ptr<Slot>& slot) {
        const std::lock_guard lock(mutex_);
        if (slot_ == slot) {
            slot_ = nullptr;
        }
    }

    // Delivery thread only.
    zmq::socket_ref socket() { return socket_; }
    void Take();
    void Deliver();

private:
    std::shared_ptr<Slot> listener() {
        const std::lock_guard lock(mutex_);
        return slot_;
    }
    void Keep(SampleCodec::Decoded event);

    const std::string topic_;  // as on the wire
    const std::shared_ptr<const SampleCodec> codec_;

    std::mutex mutex_;
    std::shared_ptr<Slot> slot_;  // under the mutex

    // Delivery thread only
    zmq::socket_t socket_;
    std::deque<SampleCodec::Decoded> waiting_;  // not heard yet, oldest first
    FaultLog faults_;
};

void WkpTopicReader::Feed::Take() {
    std::vector<zmq::message_t> frames;
    for (int i = 0; i < kBatch && Receive(socket_, frames); ++i) {
        if (View(frames[0]) != topic_) {
            continue;  // a longer frame that begins like ours
        }
        SampleCodec::Decoded event;
        try {
            if (frames.size() > 1) {
                event = codec_->Decode(View(frames[1]));
            }
        } catch (const std::exception&) {
            event.sample = nullptr;
        }
        if (event.sample == nullptr) {
            faults_.Count("", "it is no sample");
        } else {
            Keep(std::move(event));
        }
    }
    Deliver();
}

void WkpTopicReader::Feed::Keep(SampleCodec::Decoded event) {
    if (waiting_.size() >= static_cast<std::size_t>(kSampleQueue)) {
        waiting_.pop_front();
        faults_.Count("", "nobody listens, and newer ones came");
    }
    waiting_.push_back(std::move(event));
}

void WkpTopicReader::Feed::Deliver() {
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

WkpTopicReader::WkpTopicReader(zmq::context_t& context, const Address& address,
                               std::shared_ptr<const SampleCodec> codec)
    : feed_(std::make_shared<Feed>(context, address, std::move(codec))) {
    loop_.Run([this] { loop_.Watch(feed_->socket(), [feed = feed_] { feed->Take(); }); });
}

WkpTopicReader::~WkpTopicReader() {
    if (in_forked_child()) {
        // Closing the socket would reach into the parent; the loop leaks its share of it.
        return;
    }
    if (const auto slot = feed_->SetListener(nullptr)) {
        slot->Remove();
    }
}

rr::ListenerRegistration WkpTopicReader::Listen(Listener listener) {
    if (in_forked_child()) {
        return rr::ListenerRegistration();
    }
    auto slot = std::make_shared<Feed::Slot>(std::move(listener));
    if (const auto before = feed_->SetListener(slot)) {
        before->Remove();
    }
    loop_.Post([feed = feed_] { feed->Deliver(); });
    return rr::ListenerRegistration([weak = std::weak_ptr<Feed>(feed_), slot] {
        if (in_forked_child()) {
            return;
        }
        if (const auto feed = weak.lock()) {
            feed->RemoveListener(slot);
        }
        slot->Remove();
    });
}

}  // namespace gorm::cor::ps
