#pragma once

#include "kvo/KvoDataTransferLib.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kvo {

/// One stream's statistics as its broker reports them.
struct StreamStatistics {
    std::int64_t timestamp_ns = 0;    // last write, nanoseconds since the Unix epoch
    std::string timestamp_text;       // the same as ctime() writes it, with its newline
    std::int32_t int_value_1 = 0;     // local subscribers
    std::uint64_t count_value_1 = 0;  // samples written
    std::uint64_t count_value_2 = 0;  // payload bytes written
    std::uint64_t count_value_3 = 0;  // samples dropped or lost
    std::int32_t int_value_2 = 0;     // publisher: 1 local, 2 remote, 0 gone
    std::string text_value;           // path of the stream file
};

/// Asks a broker for its streams, its brokers and one stream's statistics. Queries that fail are
/// logged and give what was received until then.
/// Threads: one at a time.
class KVO_TRANSFER_EXPORT KvoStatisticsClient : public KvoDataTransferLib {
public:
    /// Connects, waiting at most 10 s; a failure is only logged.
    KvoStatisticsClient(KvoLogger* logger, std::string broker_uri);
    ~KvoStatisticsClient() override;

    /// Connects anew; the client before is replaced.
    void Init(std::string broker_uri);

    StreamStatistics GetStatistics(std::string data_stream_identifier);
    std::vector<std::string> GetRegisteredStreams();
    std::vector<std::string> GetConnectedBrokers();
};

}  // namespace kvo
