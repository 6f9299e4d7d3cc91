#pragma once

#include "kvo/KvoDataTransferLib.h"
#include "kvo/KvoStatisticsClient.h"

#include <boost/signals2/connection.hpp>
#include <boost/signals2/slot.hpp>

#include <memory>
#include <string>

namespace kvo {

struct SubscriberState;

/// The consuming end of one data stream. Order of use: RegisterSubscriber, connect a slot, and in
/// the slot ReadData. Registers again by itself when the broker was away; a publisher that ends
/// and comes back needs nothing.
/// Threads: one at a time for registration; ReadData and connect from any thread. Slots run on a
/// delivery thread of the middleware.
class KVO_TRANSFER_EXPORT KvoDataSubscriber : public KvoDataTransferLib {
public:
    /// Reads the configuration file; throws what Boost.PropertyTree throws for a file that lacks
    /// `reply_time` or `max_age_data_sample` or has no integer there.
    explicit KvoDataSubscriber(KvoLogger* logger);
    explicit KvoDataSubscriber(const log4cplus::Logger& logger);
    /// Leaves the registration at the broker to UnregisterSubscriber. A slot may destroy its own
    /// subscriber.
    ~KvoDataSubscriber() override;

    /// @param remote_broker_uri empty: the stream is of this host.
    /// @param accessor_argument how many samples taken by ReadData stay valid; below 1: 1.
    /// @return 1 registered (also after an exception of the broker client, which is logged);
    /// -1 wrong path in a URI, no broker, no such publisher, no shared memory; the broker's code
    /// when it refused. Throws for a text that is no URI.
    int RegisterSubscriber(std::string broker_uri, std::string data_stream_identifier,
                           std::string remote_broker_uri, int accessor_argument) override;
    /// @return 1. Samples in memory can still be read.
    int UnregisterSubscriber() override;

    /// Takes the next unread sample; null when there is none. The sample is owned by the
    /// subscriber and valid until `accessor_argument` further ones have been taken.
    DataSample* ReadData() override;

    /// Calls the slot once for every new sample. Only after RegisterSubscriber returned 1; throws
    /// std::logic_error otherwise.
    boost::signals2::connection connect(const boost::signals2::slot<void()>& slot);

    /// The stream's statistics at the broker; an empty record when the broker gives none.
    StreamStatistics get_statistics();

protected:
    void Init();
    void LoadDefaults();
    void ReadIni();
    void PrintConfigValues();
    bool CheckPath();
    int CheckPublisher();
    void RegisterConnectionListener();
    int CreateAccessor();
    void PrintErrorMessage(int code);
    void LogSubscriberParameter();
    void Reregister();
    void InitializeNotificationSubscriber(const std::string& data_stream_identifier, int port);
    void StartNotificationSubscription();
    void StopNotificationSubscription();

    const std::shared_ptr<SubscriberState> subscriber_state;
};

}  // namespace kvo
