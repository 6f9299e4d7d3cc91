#include "rr/wkp_channel.h"

#include "gorm/cor/errors.h"
#include "kvo/os/fork_guard.h"
#include "rr/wire.h"
#include "transport/bounds.h"
#include "transport/log.h"

#include <algorithm>
#include <utility>

namespace gorm::cor::rr {
namespace {

constexpr std::chrono::milliseconds kDefaultReplyTime{6000};
// So that adding it to the present never overflows.
constexpr std::chrono::milliseconds kLongestReplyTime = std::chrono::hours(24 * 365);

std::chrono::milliseconds ReplyTimeOf(const qos::QoSList& list) {
    std::chrono::milliseconds duration = kDefaultReplyTime;
    for (const auto& quality : list) {
        if (const auto* reply_time = dynamic_cast<const qos::ReplyTime*>(quality.get())) {
            duration = reply_time->duration();
        }
    }
    return std::min(duration, kLongestReplyTime);
}

std::uint32_t NextCallId() {
    static std::atomic<std::uint32_t> next{0};
    // relaxed: only has to be another number than those of the calls in flight.
    return next.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace

Channel::~Channel() = default;

/// A thread inside Request; Close waits for it to leave.
class WkpChannel::Visit {
public:
    explicit Visit(WkpChannel& channel) : channel_(channel) {
        const std::lock_guard lock(channel_.mutex_);
        open_ = !channel_.closed_;
        ++channel_.visitors_;
    }
    Visit(const Visit&) = delete;
    Visit& operator=(const Visit&) = delete;
    ~Visit() {
        const std::lock_guard lock(channel_.mutex_);
        if (--channel_.visitors_ == 0) {
            // Under the lock: after it the channel may be gone.
            channel_.left_.notify_all();
        }
    }
    bool open() const { return open_; }

private:
    WkpChannel& channel_;
    bool open_ = false;
};

WkpChannel::WkpChannel(ClientHub& hub, Address address, const qos::QoSList& qos)
    : hub_(hub),
      end_(std::make_shared<ClientEnd>(std::move(address))),
      reply_time_(ReplyTimeOf(qos)),
      one_way_(std::make_shared<OneWay>()) {
    hub_.Open(end_);
}

WkpChannel::~WkpChannel() {
    Close();
}

std::string WkpChannel::At(const char* method) const {
    return std::string(method) + " at " + end_->address.text + ": ";
}

std::string WkpChannel::Request(const char* method, std::string_view params) {
    const std::string at = At(method);
    if (kvo::os::InForkedChild()) {
        throw ConnectionLost(at + "the connection belongs to the process that forked this one");
    }
    if (reply_time_.count() <= 0) {
        throw ReplyTimeout(at + "the reply time is " + std::to_string(reply_time_.count()) + " ms");
    }
    const std::uint32_t id = NextCallId();
    auto call = std::make_shared<PendingCall>(id, EncodeRequest(id, method, params));
    if (call->message.size() > kMaxRequestBytes) {
        // Sent, it would cost all clients of the connection their link.
        throw Error(at + "a request of " + std::to_string(call->message.size()) +
                    " bytes, at most " + std::to_string(kMaxRequestBytes) + " are taken");
    }
    const Visit visit(*this);
    if (!visit.open()) {
        throw ConnectionLost(at + "the client was closed");
    }
    return Exchange(at, call);
}

void WkpChannel::RequestAsync(const char* method, std::string_view params,
                              std::function<void(const std::string&)> answered) {
    const std::uint32_t id = NextCallId();
    auto call = std::make_shared<PendingCall>(id, EncodeRequest(id, method, params),
                                              [answered = std::move(answered)](const Outcome& end) {
                                                  if (end.kind == Outcome::Kind::kResult) {
                                                      answered(end.text);
                                                  }
                                              });
    hub_.loop().Post([end = end_, call = std::move(call)] {
        if (end->connection != nullptr && end->connection->connected()) {
            end->connection->Request(end, call);
        }
    });
}

std::string WkpChannel::Exchange(const std::string& at, const std::shared_ptr<PendingCall>& call) {
    const auto deadline = std::chrono::steady_clock::now() + reply_time_;
    hub_.loop().Post([end = end_, call] {
        if (end->connection == nullptr) {
            call->Complete({Outcome::Kind::kConnectionLost, "the client was closed"});
        } else {
            end->connection->Request(end, call);
        }
    });
    std::optional<Outcome> outcome = call->Await(deadline);
    if (!outcome) {
        bool was_waiting = false;
        std::string why;
        hub_.loop().Run([&] {
            was_waiting = end_->connection != nullptr && end_->connection->Forget(*end_, call);
            why = was_waiting ? end_->connection->FaultSuffix() : "";
        });
        outcome = call->Await(deadline);  // it may have come in the meantime
        if (!outcome) {
            throw ReplyTimeout(at + (was_waiting ? "no connection" : "no answer") + " within " +
                               std::to_string(reply_time_.count()) + " ms" + why);
        }
    }
    switch (outcome->kind) {
        case Outcome::Kind::kRemoteError:
            throw RemoteError(at + outcome->text);
        case Outcome::Kind::kConnectionLost:
            throw ConnectionLost(at + outcome->text);
        case Outcome::Kind::kResult:
            break;
    }
    return std::move(outcome->text);
}

void WkpChannel::Notify(const char* method, std::string_view params) {
    bool posted = false;
    try {
        posted = PostNotification(method, params);
    } catch (const std::exception&) {  // out of memory: such a call has no outcome
    }
    if (!posted) {
        // relaxed: a number for the log.
        one_way_->dropped.fetch_add(1, std::memory_order_relaxed);
    }
}

bool WkpChannel::PostNotification(const char* method, std::string_view params) {
    // relaxed: bounds the queue, a few more do no harm.
    if (one_way_->queued.load(std::memory_order_relaxed) >= kMaxQueuedOneWay) {
        return false;
    }
    std::string message = EncodeNotification(method, params);
    if (message.size() > kMaxRequestBytes) {
        return false;
    }
    one_way_->queued.fetch_add(1, std::memory_order_relaxed);
    const bool posted =
        hub_.loop().Post([end = end_, one_way = one_way_, message = std::move(message)] {
            one_way->queued.fetch_sub(1, std::memory_order_relaxed);
            if (end->connection == nullptr || !end->connection->Notify(*end, message)) {
                one_way->dropped.fetch_add(1, std::memory_order_relaxed);
            }
        });
    return posted;
}

boost::future<void> WkpChannel::Connect() {
    boost::promise<void> promise;
    boost::future<void> future = promise.get_future();
    if (kvo::os::InForkedChild()) {
        promise.set_exception(ConnectionLost(
            At("Connect") + "the connection belongs to the process that forked this one"));
        return future;
    }
    hub_.loop().Run([&] {
        if (end_->connection == nullptr) {
            promise.set_exception(ConnectionLost(At("Connect") + "the client was closed"));
        } else {
            end_->connection->Connect(*end_, std::move(promise));
        }
    });
    return future;
}

ListenerRegistration WkpChannel::RegisterConnectionListener(std::function<void(bool)> listener) {
    return kvo::os::InForkedChild() ? ListenerRegistration()
                                    : end_->strand.Add(std::move(listener));
}

void WkpChannel::Close() noexcept {
    if (kvo::os::InForkedChild()) {
        return;
    }
    {
        const std::lock_guard lock(mutex_);
        if (std::exchange(closed_, true)) {
            return;
        }
    }
    hub_.Close(end_);
    {
        std::unique_lock lock(mutex_);
        left_.wait(lock, [this] { return visitors_ == 0; });
    }
    end_->strand.Close();
    if (const auto dropped = one_way_->dropped.load(std::memory_order_relaxed); dropped != 0) {
        LogInfo(std::to_string(dropped) + " one-way calls to " + end_->address.text +
                " were dropped");
    }
}

}  // namespace gorm::cor::rr
