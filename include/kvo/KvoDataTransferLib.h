#pragma once

#include "kvo/broker/data_broker_registration_sync.h"
#include "kvo/memory/data_sample.h"
#include "kvo/transfer_export.h"

#include <log4cplus/logger.h>

#include <memory>
#include <string>

namespace kvo {

class KvoLogger;
struct TransferState;

/// The base of publisher, subscriber and statistics client: logger, quality of service, broker
/// connection and heartbeat, and one virtual interface for all of them. A plain object answers
/// every virtual operation with 0 and does nothing.
///
/// Results: 1 success, -1 a local failure (see the log), other negative numbers the broker's own
/// (kvo::BrokerResult).
/// Threads: one at a time, except where an operation says otherwise. In a child of fork() every
/// operation fails at once.
class KVO_TRANSFER_EXPORT KvoDataTransferLib {
public:
    /// @param logger stays the caller's and must outlive the object; null: nothing is logged.
    explicit KvoDataTransferLib(KvoLogger* logger);
    /// Wraps the logger in a KvoLogger that the object owns.
    explicit KvoDataTransferLib(const log4cplus::Logger& logger);
    KvoDataTransferLib(const KvoDataTransferLib&) = delete;
    KvoDataTransferLib& operator=(const KvoDataTransferLib&) = delete;
    virtual ~KvoDataTransferLib();

    virtual int RegisterPublisher(std::string broker_uri, std::string data_stream_identifier,
                                  bool compute_checksum);
    virtual int UnregisterPublisher();
    virtual void PublishData();
    virtual int RegisterSubscriber(std::string broker_uri, std::string data_stream_identifier,
                                   std::string remote_broker_uri, int accessor_argument);
    virtual int UnregisterSubscriber();
    virtual DataSample* ReadData();

    /// Puts the defaults into the working values and sets the logger.
    void Init(KvoLogger* logger);

    /// @param latency milliseconds. @param deadline seconds. Any value is taken as it is; both
    /// are sent with the next registration. Not while a registration is in progress.
    void SetQoS(int latency, int deadline);

    /// Hands the broker client over to the caller; the object has none afterwards, so its
    /// heartbeat, unregistration and re-registration fail. Empty when there is none. Not while a
    /// registration is in progress.
    std::unique_ptr<DataBrokerRegistrationSync> GetBrokerClient();

protected:
    /// Directory in KVO_TRANSFERCONFIG_PATH and file name; empty when the variable is not set.
    std::string GetConfigFilePath();

    /// @return the URI with the broker's path, or empty when it carries another path.
    std::string VerifyPathInBrokerUri(std::string uri);

    /// Connects to the broker, waiting at most 10 s. @return 1 connected, -1 not.
    /// Throws network::uri_syntax_error for a text that is no URI, and what loading the
    /// middleware throws.
    int InitCOR(std::string uri);

    /// @param period seconds; 0 or below: no heartbeat. @param id sent with every heartbeat.
    void StartHeartbeat(int period, std::string id);
    /// Returns when the heartbeat has ended: up to one reply time. Throws std::future_error when
    /// another thread is stopping it already.
    void StopHeartbeat();
    /// Lowers the argument (seconds) below the broker's heartbeat time-out.
    void CheckHeartbeatTimeout(int& reply_time_out);

    /// Writes one message to the object's logger.
    void Log(int level, const std::string& message);

    /// Ends all logging of the object and its threads. Called first in the destructor of the most
    /// derived class, since the logger may be destroyed when that returns.
    void CloseLogger();

    /// What the object shares with its threads; lives as long as any of them.
    const std::shared_ptr<TransferState> state;
};

}  // namespace kvo
