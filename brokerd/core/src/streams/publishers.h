#pragma once

#include "kvo/broker/publisher_request.h"
#include "kvo/broker/stream_description.h"
#include "streams/admission.h"
#include "streams/quotas.h"
#include "streams/stream_table.h"
#include "streams/verdict.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kvo::brokerd {

/// The publishers of this host's streams: registers and unregisters them, and makes the file of
/// each. Subscribers are told in the order of events.
/// Threads: one.
class Publishers {
public:
    Publishers(StreamTable& table, const Admission& admission, const Quotas& quotas)
        : table_(table), admission_(admission), quotas_(quotas) {}

    Verdict Add(const Registrant& registrant, const PublisherRequest& request);
    /// -1: the caller does not publish the stream.
    Verdict Remove(const ClientIdentity& caller, const StreamName& stream);
    /// Unregisters the publisher, whichever process it is. -1: the stream has none of this host.
    /// @param caller for the log: "user alice (1001)".
    Verdict EndStream(const StreamName& stream, const std::string& caller);

    /// Whether the caller is the stream's publisher.
    bool Owns(const ClientIdentity& caller, const StreamName& stream);
    /// Throws std::runtime_error when the caller does not publish the stream.
    const std::string& KeyFor(const ClientIdentity& caller, const StreamName& stream);
    /// Of the stream's publisher; from others they are ignored.
    void OnNewData(const ClientIdentity& caller, const StreamName& stream);
    void OnDataWritten(const ClientIdentity& caller, const StreamName& stream,
                       std::int64_t written_ms);
    /// @return whether the caller publishes a stream of this name.
    [[nodiscard]] bool OnHeartbeat(const ClientIdentity& caller, const StreamName& stream);
    /// The last connection of the process has ended.
    void OnDisconnect(const ClientIdentity& caller);

    /// Whether the stream has a publisher whose process lives, judged now and not by the last
    /// sweep: the name of a dead publisher is free at once.
    [[nodiscard]] bool HasLiving(const StreamName& stream);
    [[nodiscard]] bool HasLiving(const StreamName& name, Stream& stream);
    std::vector<std::string> Names();
    /// What other brokers are told of the stream; the names of broker and topic are not filled in.
    StreamDescription Describe(const StreamName& stream);

    /// Unregisters the publisher if it has died or ended its heartbeats.
    void Supervise(const StreamName& name, Stream& stream);
    void Unregister(const StreamName& name, Stream& stream, const std::string& why);

private:
    Stream* Owned(const ClientIdentity& caller, const StreamName& name);
    Client::State Judge(Stream& stream) const;
    ProcessTag DeadWriterOf(const StreamFile& file) const;
    Verdict Resume(const Registrant& registrant, const PublisherRequest& request, Stream& stream);
    Verdict Begin(const Registrant& registrant, const PublisherRequest& request,
                  const StreamGeometry& geometry);
    void Register(const Registrant& registrant, const PublisherRequest& request, Stream& stream,
                  const std::string& key, ProcessTag dead_writer);

    StreamTable& table_;
    const Admission& admission_;
    const Quotas& quotas_;
};

}  // namespace kvo::brokerd
