#include "ps/wkp_topic_reader.h"

#include "curve/curve_client.h"
#include "gorm/cor/errors.h"
#include "kvo/os/fork_guard.h"
#include "local/runtime_directory.h"
#include "local/topic_ring.h"
#include "transport/bounds.h"
#include "transport/listener_slot.h"
#include "transport/log.h"
#include "transport/short_slices.h"
#include "transport/sockets.h"

#include <atomic>
#include <chrono>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace gorm::cor::ps {
namespace {

// How often a reader looks whether its ring still has a server, or whether there is one.
constexpr std::chrono::seconds kRingCheck{1};

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

SampleCodec::~SampleCodec() = default;

TopicReader::~TopicReader() = default;

/// What arrives, and who listens. Goes by the topic's ring in shared memory where it has one, and
/// over a socket else; chooses anew when the ring is over, and looks for one while there is none.
class WkpTopicReader::Feed : public std::enable_shared_from_this<Feed> {
public:
    using Slot = ListenerSlot<SampleCodec::Decoded>;

    Feed(zmq::context_t& context, const Address& address, std::shared_ptr<const SampleCodec> codec,
         PollLoop& loop)
        : context_(context),
          address_(address),
          topic_(address.path + '\0'),
          codec_(std::move(codec)),
          loop_(loop),
          faults_("event of " + address.text) {}

    /// Any thread. @return the listener before.
    std::shared_ptr<Slot> SetListener(std::shared_ptr<Slot> slot) {
        const std::lock_guard lock(mutex_);
        return std::exchange(slot_, std::move(slot));
    }
    /// Any thread.
    void RemoveListener(const std::shared_ptr<Slot>& slot) {
        {
            const std::lock_guard lock(mutex_);
            if (slot_ == slot) {
                slot_ = nullptr;
            }
        }
        Interrupt();  // the delivery thread lets go of its share
    }
    /// Any thread: has the delivery thread look at what was posted to the loop.
    void Interrupt();
    /// Any thread, before the loop ends.
    void Stop();

    // Delivery thread only.
    void Begin();  // throws Error
    void Deliver();

private:
    std::shared_ptr<Slot> listener() {
        const std::lock_guard lock(mutex_);
        return slot_;
    }
    bool stopped() const { return stopped_.load(std::memory_order_acquire); }
    bool JoinRing();
    void LeaveRing();
    void FollowRing();
    bool TakeFromRing(Slot& current);
    bool ServerIsGone();
    void OpenSocket();
    void CloseSocket();
    void LookForRing();
    void TakeFromSocket();
    const SampleCodec::Decoded* Decode(std::string_view sample);
    void Keep(const SampleCodec::Decoded& event);

    zmq::context_t& context_;
    const Address address_;
    const std::string topic_;  // as on the wire
    const std::shared_ptr<const SampleCodec> codec_;
    PollLoop& loop_;  // used while not stopped

    std::mutex mutex_;
    std::shared_ptr<Slot> slot_;             // under the mutex
    std::shared_ptr<TopicRingReader> ring_;  // under the mutex; null: the socket is used

    // Delivery thread stores false, others true before they nudge the ring.
    std::atomic<bool> interrupted_{false};
    std::atomic<bool> stopped_{false};

    // Delivery thread only
    std::string ring_directory_;
    std::chrono::steady_clock::time_point ring_checked_;
    std::optional<zmq::socket_t> socket_;
    // Where the next ring is to be entered: as the socket has told, or empty: at its start, since
    // it is the successor of what we had. None: there was nothing before.
    std::optional<std::string> position_;
    std::deque<SampleCodec::Decoded> waiting_;  // not heard yet, oldest first
    std::string decoded_text_;                  // what was decoded last
    SampleCodec::Decoded decoded_;              // of it
    FaultLog faults_;
};

void WkpTopicReader::Feed::Begin() {
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

// Holds the loop for as long as nobody else wants it.
[[gnu::hot]] void WkpTopicReader::Feed::FollowRing() {
    std::shared_ptr<Slot> current = listener();
    while (!stopped()) {
        // Before all looks: who changes what they look at changes the word after that.
        const std::uint32_t seen = ring_->word();
        if (interrupted_.exchange(false, std::memory_order_acq_rel)) {
            loop_.Post([feed = shared_from_this()] { feed->FollowRing(); });
            return;
        }
        if (current == nullptr) {
            ring_->Sleep(seen, kRingCheck);
        } else if (!waiting_.empty()) {
            Deliver();
            current = listener();
        } else if (const bool closed = ring_->closed(); !TakeFromRing(*current)) {
            // Closed before the look: the look would have found what came last.
            if (closed || ServerIsGone()) {
                LeaveRing();
                return;
            }
            ring_->Sleep(seen, kRingCheck);
        }
    }
}

// Nothing is waiting.
[[gnu::hot]] bool WkpTopicReader::Feed::TakeFromRing(Slot& current) {
    const auto sample = ring_->Take();
    if (!sample) {
        return false;
    }
    const SampleCodec::Decoded* const event = Decode(*sample);
    if (event != nullptr && !current.Run(*event)) {
        Keep(*event);
    }
    return true;
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
        LookForRing();
    }
}

void WkpTopicReader::Feed::CloseSocket() {
    loop_.Unwatch(*socket_);
    socket_.reset();
}

void WkpTopicReader::Feed::LookForRing() {
    loop_.After(kRingCheck, [weak = weak_from_this()] {
        const auto feed = weak.lock();
        if (feed == nullptr || feed->stopped()) {
            return;
        }
        if (feed->JoinRing()) {
            feed->CloseSocket();
        } else {
            feed->LookForRing();
        }
    });
}

void WkpTopicReader::Feed::TakeFromSocket() {
    std::vector<zmq::message_t> frames;
    for (int i = 0; i < kBatch && Receive(*socket_, frames); ++i) {
        if (View(frames[0]) != topic_) {
            continue;  // a longer frame that begins like ours
        }
        if (frames.size() > 2) {
            position_ = View(frames[2]);
        }
        if (frames.size() < 2) {
            faults_.Count("", "it has no sample");
        } else if (const auto* const event = Decode(View(frames[1]))) {
            Keep(*event);
        }
    }
    Deliver();
}

// Valid until the next call. Null: it is no sample. Most events of a topic say the same, which is
// decoded once.
[[gnu::hot]] const SampleCodec::Decoded* WkpTopicReader::Feed::Decode(std::string_view sample) {
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
        faults_.Count("", "it is no sample");
        return nullptr;
    }
    return &decoded_;
}

void WkpTopicReader::Feed::Keep(const SampleCodec::Decoded& event) {
    if (waiting_.size() >= static_cast<std::size_t>(kSampleQueue)) {
        waiting_.pop_front();
        faults_.Count("", "nobody listens, and newer ones came");
    }
    waiting_.push_back(event);
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

void WkpTopicReader::Feed::Interrupt() {
    interrupted_.store(true, std::memory_order_release);
    std::shared_ptr<TopicRingReader> ring;
    {
        const std::lock_guard lock(mutex_);
        ring = ring_;
    }
    if (ring != nullptr) {
        ring->Nudge();
    }
}

void WkpTopicReader::Feed::Stop() {
    stopped_.store(true, std::memory_order_release);
    Interrupt();
}

WkpTopicReader::WkpTopicReader(zmq::context_t& context, const Address& address,
                               std::shared_ptr<const SampleCodec> codec)
    : feed_(std::make_shared<Feed>(context, address, std::move(codec), loop_)) {
    loop_.Run([this] {
        // Whoever publishes goes to sleep some time after it has told of a sample. On its processor
        // the delivery would wait for that.
        AskForShortSlices();
        feed_->Begin();
    });
}

WkpTopicReader::~WkpTopicReader() {
    if (kvo::os::InForkedChild()) {
        // Closing the socket would reach into the parent; the loop leaks its share of it.
        return;
    }
    if (const auto slot = feed_->SetListener(nullptr)) {
        slot->Remove();
    }
    feed_->Stop();
}

rr::ListenerRegistration WkpTopicReader::Listen(Listener listener) {
    if (kvo::os::InForkedChild()) {
        return rr::ListenerRegistration();
    }
    auto slot = std::make_shared<Feed::Slot>(std::move(listener));
    if (const auto before = feed_->SetListener(slot)) {
        before->Remove();
    }
    loop_.Post([feed = feed_] { feed->Deliver(); });
    feed_->Interrupt();
    return rr::ListenerRegistration([weak = std::weak_ptr<Feed>(feed_), slot] {
        if (kvo::os::InForkedChild()) {
            return;
        }
        if (const auto feed = weak.lock()) {
            feed->RemoveListener(slot);
        }
        slot->Remove();
    });
}

}  // namespace gorm::cor::ps
