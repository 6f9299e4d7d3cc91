#include "ps/wkp_topic_reader.h"

#include "curve/curve_client.h"
#include "gorm/cor/errors.h"
#include "kvo/os/fork_guard.h"
#include "kvo/os/thread_bound.h"
#include "local/runtime_directory.h"
#include "local/topic_ring_reader.h"
#include "ps/event_queue.h"
#include "transport/bounds.h"
#include "transport/log.h"
#include "transport/short_slices.h"
#include "transport/sockets.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace gorm::cor::ps {
namespace {

// How often a reader checks whether its ring still has a server, or whether there is one.
constexpr std::chrono::seconds kRingCheck{1};

zmq::socket_t MakeSubscription(zmq::context_t& context, const Address& address,
                               const std::string& topic) {
    zmq::socket_t socket =
        MakeSocket(context, zmq::socket_type::sub, kSampleQueue, kMaxSampleBytes);
    SetReconnect(socket);
    socket.set(zmq::sockopt::ipv6, address.ipv6);
    // Chosen once: a client subscribes anew when the publisher was away, since its port may be
    // another one then.
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

SampleCodec::~SampleCodec() = default;

TopicReader::~TopicReader() = default;

/// How events arrive. Goes by the topic's ring in shared memory where it has one, and over a socket
/// else; chooses anew when the ring is closed, and polls for one while there is none.
class WkpTopicReader::Feed : public std::enable_shared_from_this<Feed> {
public:
    Feed(zmq::context_t& context, const Address& address, std::shared_ptr<const SampleCodec> codec,
         PollLoop& loop)
        : queue(std::move(codec), address.text),
          context_(context),
          address_(address),
          topic_(address.path + '\0'),
          loop_(loop) {}

    /// Any thread: makes the delivery thread run what was posted to the loop.
    void Interrupt();
    /// Any thread, before the loop ends.
    void Stop();

    /// Delivery thread. Throws Error.
    void Begin();

    EventQueue queue;  // threads: as it says

private:
    bool stopped() const {
        // [feed-stop] Acquire: the listener is removed.
        return stopped_.load(std::memory_order_acquire);
    }
    bool JoinRing();
    void LeaveRing();
    void FollowRing();
    bool ServerIsGone();
    void OpenSocket();
    void CloseSocket();
    void PollForRing();
    void TakeFromSocket();

    zmq::context_t& context_;
    const Address address_;
    const std::string topic_;  // as on the wire
    PollLoop& loop_;           // used while not stopped

    std::mutex mutex_;
    std::shared_ptr<TopicRingReader> ring_;  // under the mutex; null: the socket is used

    // Delivery thread stores false, others true before they wake it.
    std::atomic<bool> interrupted_{false};
    std::atomic<bool> stopped_{false};

    // Delivery thread only
    const kvo::os::ThreadBound thread_;
    std::string ring_directory_;
    std::chrono::steady_clock::time_point ring_checked_;
    std::optional<zmq::socket_t> socket_;
    // Where the next ring is to be entered: as the last message of the socket says, or empty: at
    // its start, since it is the successor of the one before. None: there was nothing before.
    std::optional<std::string> position_;
};

void WkpTopicReader::Feed::Begin() {
    thread_.here();
    if (!JoinRing()) {
        OpenSocket();
    }
}

bool WkpTopicReader::Feed::JoinRing() {
    if (!address_.PrefersLocal()) {
        return false;
    }
    ring_directory_ = FindLocalTopics(address_.port);
    auto ring = ring_directory_.empty() ? std::nullopt
                                        : TopicRingReader::Open(ring_directory_, address_.path);
    if (!ring || ring->closed()) {
        return false;
    }
    if (position_) {
        ring->BeginAt(*position_);
    } else {
        ring->BeginNow();
    }
    position_ = "";
    {
        const std::lock_guard lock(mutex_);
        ring_ = std::make_shared<TopicRingReader>(std::move(*ring));
    }
    ring_checked_ = std::chrono::steady_clock::now();
    loop_.Post([feed = shared_from_this()] { feed->FollowRing(); });
    return true;
}

void WkpTopicReader::Feed::LeaveRing() {
    {
        const std::lock_guard lock(mutex_);
        ring_ = nullptr;
    }
    if (JoinRing()) {
        return;
    }
    try {
        OpenSocket();
    } catch (const std::exception& error) {
        LogError("no events of " + address_.text + " any more: " + error.what());
    }
}

// Keeps the loop until it is interrupted.
[[gnu::hot]] void WkpTopicReader::Feed::FollowRing() {
    thread_.here();
    std::shared_ptr<EventQueue::Slot> current = queue.listener();
    while (!stopped()) {
        // Before all checks: a change of what they check is followed by a change of the sequence.
        const std::uint32_t seen = ring_->sequence();
        // [feed-interrupt] Acquire: what was done before the interruption is visible.
        if (interrupted_.exchange(false, std::memory_order_acq_rel)) {
            loop_.Post([feed = shared_from_this()] { feed->FollowRing(); });
            return;
        }
        if (current == nullptr) {
            ring_->Sleep(seen, kRingCheck);
        } else if (!queue.empty()) {
            queue.Deliver();
            current = queue.listener();
        } else {
            const bool closed = ring_->closed();  // before Take(), which then finds the last event
            if (const auto sample = ring_->Take()) {
                queue.Pass(*sample, *current);
            } else if (closed || ServerIsGone()) {
                LeaveRing();
                return;
            } else {
                ring_->Sleep(seen, kRingCheck);
            }
        }
    }
}

// A server that was killed has not closed its ring.
[[gnu::hot]] bool WkpTopicReader::Feed::ServerIsGone() {
    const auto now = std::chrono::steady_clock::now();
    if (now - ring_checked_ < kRingCheck) {
        return false;
    }
    ring_checked_ = now;
    return FindLocalTopics(address_.port) != ring_directory_;
}

void WkpTopicReader::Feed::OpenSocket() {
    socket_ = MakeSubscription(context_, address_, topic_);
    position_ = "";
    loop_.Watch(*socket_, [feed = shared_from_this()] { feed->TakeFromSocket(); });
    if (address_.PrefersLocal()) {
        PollForRing();
    }
}

void WkpTopicReader::Feed::CloseSocket() {
    loop_.Unwatch(*socket_);
    socket_.reset();
}

void WkpTopicReader::Feed::PollForRing() {
    loop_.After(kRingCheck, [weak = weak_from_this()] {
        const auto feed = weak.lock();
        if (feed == nullptr || feed->stopped()) {
            return;
        }
        if (feed->JoinRing()) {
            feed->CloseSocket();
        } else {
            feed->PollForRing();
        }
    });
}

void WkpTopicReader::Feed::TakeFromSocket() {
    thread_.here();
    std::vector<zmq::message_t> frames;
    for (int i = 0; i < kBatch && Receive(*socket_, frames); ++i) {
        if (View(frames[0]) != topic_) {
            continue;  // a longer frame that begins like ours
        }
        if (frames.size() > 2) {
            position_ = View(frames[2]);
        }
        if (frames.size() < 2) {
            queue.CountFault("it has no sample");
        } else {
            queue.Add(View(frames[1]));
        }
    }
    queue.Deliver();
}

void WkpTopicReader::Feed::Interrupt() {
    // [feed-interrupt] Release: the delivery thread sees it, and what was posted before, when it
    // sees the sequence that Wake() changes.
    interrupted_.store(true, std::memory_order_release);
    std::shared_ptr<TopicRingReader> ring;
    {
        const std::lock_guard lock(mutex_);
        ring = ring_;
    }
    if (ring != nullptr) {
        ring->Wake();
    }
}

void WkpTopicReader::Feed::Stop() {
    // [feed-stop] Release: the delivery thread ends, and its listener is removed before.
    stopped_.store(true, std::memory_order_release);
    Interrupt();
}

WkpTopicReader::WkpTopicReader(zmq::context_t& context, const Address& address,
                               std::shared_ptr<const SampleCodec> codec)
    : feed_(std::make_shared<Feed>(context, address, std::move(codec), loop_)) {
    loop_.Run([this] {
        // A publisher goes to sleep some time after its notification. On the same processor the
        // delivery would wait for that.
        RequestShortSlices();
        feed_->Begin();
    });
}

WkpTopicReader::~WkpTopicReader() {
    if (kvo::os::InForkedChild()) {
        // Closing the socket would reach into the parent; the loop leaks its share of it.
        return;
    }
    if (const auto slot = feed_->queue.SetListener(nullptr)) {
        slot->Remove();
    }
    feed_->Stop();
}

rr::ListenerRegistration WkpTopicReader::Listen(Listener listener) {
    if (kvo::os::InForkedChild()) {
        return rr::ListenerRegistration();
    }
    auto slot = std::make_shared<EventQueue::Slot>(std::move(listener));
    if (const auto before = feed_->queue.SetListener(slot)) {
        before->Remove();
    }
    loop_.Post([feed = feed_] { feed->queue.Deliver(); });
    feed_->Interrupt();
    return rr::ListenerRegistration([weak = std::weak_ptr<Feed>(feed_), slot] {
        if (kvo::os::InForkedChild()) {
            return;
        }
        if (const auto feed = weak.lock()) {
            feed->queue.RemoveListener(slot);
            feed->Interrupt();  // the delivery thread lets go of its share
        }
        slot->Remove();
    });
}

}  // namespace gorm::cor::ps
