#pragma once

#include "kvo/KvoDataTransferLib.h"

#include <memory>
#include <string>
#include <vector>

namespace kvo {

struct PublisherState;

/// The producing end of one data stream. Order of use: SetBufferSize, RegisterPublisher, then
/// WriteData and PublishData any number of times. When the broker goes away the heartbeat stops
/// and samples are discarded silently; when it returns the publisher registers again by itself.
/// Threads: one at a time for registration; WriteData and PublishData from any thread.
class KVO_TRANSFER_EXPORT KvoDataPublisher : public KvoDataTransferLib {
public:
    /// Reads the configuration file; throws what Boost.PropertyTree throws for a file that lacks
    /// `reply_time` or has no integer there.
    explicit KvoDataPublisher(KvoLogger* logger);
    explicit KvoDataPublisher(const log4cplus::Logger& logger);
    /// Unregisters.
    ~KvoDataPublisher() override;

    /// @param max_data_sample_size largest payload, bytes. @param number_of_samples retained.
    void SetBufferSize(int max_data_sample_size, int number_of_samples);
    /// The topic id that goes with every sample.
    void set_topic_id(int topic_id);

    /// @return 1 registered (also after an exception of the broker client, which is logged);
    /// -1 buffer size not set, wrong path in the URI, no broker, name in use, no shared memory;
    /// the broker's code when it refused. Throws for a text that is no URI.
    int RegisterPublisher(std::string broker_uri, std::string data_stream_identifier,
                          bool compute_checksum) override;
    /// @return the broker's answer, or -1 when not registered or not connected.
    int UnregisterPublisher() override;

    /// Copies one sample into the stream's shared memory and reports it to the broker. Does
    /// nothing without a connection. Allocates nothing and logs nothing.
    /// Throws std::invalid_argument for a size that is negative or too large, std::logic_error
    /// when the registration left no shared memory or no client.
    void WriteData(int sample_tag, const std::vector<unsigned char>& payload,
                   const std::vector<unsigned char>& metadata);
    void WriteData(int sample_tag, const unsigned char* payload, int payload_size,
                   const unsigned char* metadata, int metadata_size);
    /// Notifies the subscribers of the samples written so far.
    void PublishData() override;

    bool get_connected_to_broker() const;

protected:
    void Init();
    void LoadDefaults();
    void ReadIni();
    void PrintConfigValues();
    void PrintParameters();
    int Register();
    int CreateAccessor(const std::string& data_stream_identifier);
    void Reregister();

    const std::shared_ptr<PublisherState> publisher_state;
};

}  // namespace kvo
