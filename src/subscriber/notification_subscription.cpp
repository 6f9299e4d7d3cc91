#include "subscriber/notification_subscription.h"

#include "core/detached_thread.h"
#include "gorm/cor/cor.h"
#include "kvo/KvoDataSubscriber.h"

#include <chrono>
#include <thread>
#include <utility>

namespace kvo {
namespace {

namespace ps = gorm::cor::ps;

constexpr auto kBusyPoll = std::chrono::milliseconds(100);
// Constructed once, because it is logged for every sample.
const std::string kNewDataReceived = "KvoDataSubscriber: NEW_DATA notification received";

void ReopenShm(KvoMemoryAccessor& accessor) {
    if (accessor.OpenSharedMemory() == 1) {
        accessor.set_pub_unreg(false);
        accessor.Reset();
        accessor.StartReading();
    }
}

void Handle(SubscriberState& subscriber, NotificationType type) {
    TransferState& transfer = *subscriber.transfer;
    // This reference outlives the subscriber, which a slot may destroy during NewData.
    const auto accessor = subscriber.accessor();
    switch (type) {
        case NEW_DATA:
            transfer.Log(1, kNewDataReceived);
            if (accessor != nullptr) {
                accessor->NewData();
            }
            return;
        case PUB_REG:
            transfer.Log(2, "KvoDataSubscriber: PUB_REG notification received");
            if (accessor != nullptr) {
                ReopenShm(*accessor);
            }
            return;
        case PUB_UNREG:
            transfer.Log(2, "KvoDataSubscriber: PUB_UNREG notification received");
            if (accessor != nullptr) {
                accessor->set_pub_unreg(true);
            }
            return;
        case SHM_DEL:
            transfer.Log(1, "KvoDataSubscriber: SHM_DEL notification received");
            if (accessor != nullptr) {
                accessor->StopReading();
                accessor->CloseSharedMemory();
            }
            return;
    }
    transfer.Log(3, "KvoDataSubscriber: unknown NotificationType received");
}

void NotificationEvent(SubscriberState& subscriber,
                       const ps::DataEvent<NotificationSample>& event) {
    class Busy {
    public:
        explicit Busy(std::atomic<bool>& flag) : flag_(flag) { flag_ = true; }
        Busy(const Busy&) = delete;
        Busy& operator=(const Busy&) = delete;
        ~Busy() { flag_ = false; }

    private:
        std::atomic<bool>& flag_;
    };
    const Busy busy(subscriber.event_busy);
    if (event.hasData()) {
        Handle(subscriber, event.getData()->get_notification_type());
    }
}

using Reader = ps::Subscriber<NotificationSample>;

// The subscriber thread: keeps the delivery alive until its stop future is ready. Each thread has
// the future of its own start, so replacing or dropping the promise ends it as well, and the
// reader of its own start: one that begins late must not take, and end, its successor's.
void Subscribe(const std::shared_ptr<SubscriberState>& subscriber,
               const std::weak_ptr<Reader>& own_reader, const std::future<void>& stop) {
    TransferState& transfer = *subscriber->transfer;
    transfer.Log(1, "KvoDataSubscriber: Notification subscription started...");
    gorm::cor::rr::ListenerRegistration listener;
    {
        const std::shared_ptr<Reader> own = own_reader.lock();
        auto [reader, filter] =
            subscriber->notifications.With([&](const SubscriberState::Notifications& n) {
                return std::pair(n.subscriber == own ? own : nullptr, n.filter);
            });
        if (reader != nullptr) {
            listener = reader->AddDataListener(
                [subscriber](Reader&, const ps::DataEvent<NotificationSample>& event) {
                    NotificationEvent(*subscriber, event);
                },
                std::move(filter));
        }
    }
    stop.wait();
    while (subscriber->event_busy) {
        std::this_thread::sleep_for(kBusyPoll);
    }
    transfer.Log(1, "KvoDataSubscriber: Notification subscription stopped");
}

}  // namespace

void InitializeNotificationSubscriber(SubscriberState& subscriber,
                                      const std::string& data_stream_identifier, int port) {
    TransferState& transfer = *subscriber.transfer;
    try {
        // Notifications come from the broker on the subscriber's own host.
        const std::string text =
            "wkp.ps://127.0.0.1:" + std::to_string(port) + "/" + data_stream_identifier;
        transfer.Log(1, "KvoDataSubscriber: notification_uri: " + text);
        const network::uri uri(text);
        gorm::cor::Cor& cor = gorm::cor::loadCorForUri(text, {}).getCor(uri);
        std::shared_ptr<ps::Subscriber<NotificationSample>> reader =
            cor.CreateSubscriber<NotificationSample>(uri, cor.getDefaultProperties());
        const auto create_instance = [&] {
            auto instance = reader->CreateSample();
            instance->set_data_stream_identifier(data_stream_identifier);
            return instance;
        };
        ps::DataEventFilter<NotificationSample> filter{
            create_instance(),
            ps::FilterMode::kInstance,
            {ps::InstanceEvent::kCreated, ps::InstanceEvent::kUpdated}};
        auto instance = create_instance();
        // The reader before is destroyed when `reader` leaves scope, outside the lock: that waits
        // for a notification in progress.
        subscriber.notifications.With([&](SubscriberState::Notifications& n) {
            n.subscriber.swap(reader);
            n.instance.swap(instance);
            std::swap(n.filter, filter);
        });
        transfer.Log(1, "KvoDataSubscriber: NotificationSubscriber initialized");
    } catch (const std::exception& error) {
        transfer.LogException(error, "KvoDataSubscriber: InitializeNotificationSubscriber()");
    }
}

void StartNotificationSubscription(const std::shared_ptr<SubscriberState>& subscriber) {
    std::promise<void> promise;
    auto stop = std::make_shared<std::future<void>>(promise.get_future());
    const std::weak_ptr<Reader> reader =
        subscriber->notifications.With([&](SubscriberState::Notifications& n) {
            std::swap(n.stop_promise, promise);
            return n.subscriber;
        });
    if (subscriber->transfer->closed) {
        // The subscriber's destructor may have released the one before.
        ReleaseNotifications(*subscriber);
    }
    StartDetached([subscriber, reader, stop] { Subscribe(subscriber, reader, *stop); });
}

void StopNotificationSubscription(SubscriberState& subscriber) {
    try {
        subscriber.notifications.With(
            [](SubscriberState::Notifications& n) { n.stop_promise.set_value(); });
    } catch (const std::future_error&) {
        subscriber.transfer->Log(1, "KvoDataSubscriber: NotificationSubscription already stopped");
    }
}

void ReleaseNotifications(SubscriberState& subscriber) {
    subscriber.notifications.Exchange({});
}

void SubscribeToNotifications(const std::shared_ptr<SubscriberState>& subscriber) {
    const std::string stream = subscriber->registration.Get().data_stream_identifier;
    const int port = subscriber->transfer->broker_client.Call(
        &DataBrokerRegistrationSync::GetNotificationPort, stream);
    InitializeNotificationSubscriber(*subscriber, stream, port);
    StartNotificationSubscription(subscriber);
}

void KvoDataSubscriber::InitializeNotificationSubscriber(const std::string& data_stream_identifier,
                                                         int port) {
    kvo::InitializeNotificationSubscriber(*subscriber_state, data_stream_identifier, port);
}

void KvoDataSubscriber::StartNotificationSubscription() {
    kvo::StartNotificationSubscription(subscriber_state);
}

void KvoDataSubscriber::StopNotificationSubscription() {
    kvo::StopNotificationSubscription(*subscriber_state);
}

}  // namespace kvo
