#pragma once

#include "kvo/brokerd/broker_state.h"
#include "streams/admission.h"
#include "streams/imports.h"
#include "streams/publishers.h"
#include "streams/quotas.h"
#include "streams/stream_table.h"
#include "streams/subscribers.h"
#include "streams/sweep.h"

#include <memory>
#include <optional>
#include <string_view>
#include <vector>

namespace kvo::brokerd {

/// The streams of a broker: which process publishes and which ones subscribe, for how long, and
/// which file each stream has. Owns the parts, each with one task, and does what takes several.
/// Threads: one.
class StreamRegistry {
public:
    StreamRegistry(const RegistrySettings& settings, StreamFiles& files, const Processes& processes,
                   const SupervisedTime& time, StreamTable::Notify notify, StreamTable::Log log);
    StreamRegistry(const StreamRegistry&) = delete;
    StreamRegistry& operator=(const StreamRegistry&) = delete;

    /// Adopts what an earlier broker has left in the directory.
    void Adopt(std::vector<std::unique_ptr<StreamFile>> files);
    void set_settings(const RegistrySettings& settings) { table_.set_settings(settings); }

    Publishers& publishers() { return publishers_; }
    Subscribers& subscribers() { return subscribers_; }
    Imports& imports() { return imports_; }
    Sweep& sweep() { return sweep_; }

    /// @param id stream of a publisher, id of a subscriber. Throws std::runtime_error naming the
    /// id when the caller has registered nothing under it.
    void OnHeartbeat(const ClientIdentity& caller, std::string_view id);
    /// A client has begun to listen to the stream: it is told of what is there.
    void OnSubscription(const StreamName& stream) const;

    /// Whether the stream has a publisher, subscribers or a file.
    bool Knows(const StreamName& stream) const { return table_.Find(stream) != nullptr; }
    /// Whether no process can publish it now: it has a living publisher, or is imported.
    bool IsTaken(const StreamName& stream);
    /// None: the stream is unknown.
    std::optional<StreamState> StateOf(const StreamName& stream) const;
    std::vector<StreamState> Streams() const;
    std::vector<ClientState> Clients() const;

    /// Ends all registrations and removes all files, and accepts no new ones.
    void Drain();
    bool draining() const { return admission_.closed(); }
    /// The end: removes the files that no living process uses.
    void Shutdown();

private:
    StreamTable table_;
    Admission admission_{table_};
    Quotas quotas_{table_};
    Publishers publishers_{table_, admission_, quotas_};
    Subscribers subscribers_{table_, admission_, quotas_};
    Imports imports_{table_, admission_, publishers_};
    Sweep sweep_{table_, publishers_, subscribers_};
};

}  // namespace kvo::brokerd
