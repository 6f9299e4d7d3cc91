#pragma once

#include "kvo/broker/notification_sample.h"
#include "kvo/broker/stream_description.h"
#include "kvo/brokerd/broker_state.h"
#include "streams/admission.h"
#include "streams/liveness.h"
#include "streams/quota.h"
#include "streams/stream_files.h"
#include "streams/supervised_time.h"
#include "streams/verdict.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace kvo::brokerd {

/// The streams of a broker: who publishes and who subscribes, for how long, and which file each
/// stream has. Tells subscribers through `notify`, in the order of events.
/// Knows callers by their identity: 16 opaque bytes, or none.
/// Threads: one.
class StreamRegistry {
public:
    struct Settings {
        std::chrono::seconds heartbeat_timeout;  // 0: heartbeats are not supervised
        std::chrono::milliseconds removal_grace;
        std::uint32_t max_streams;
        Quota per_client{};
        Quota per_user{};
    };
    using Notify = std::function<void(const std::string& stream, NotificationType type)>;
    using Log = std::function<void(int level, const std::string& text)>;

    StreamRegistry(const Settings& settings, StreamFiles& files, const Processes& processes,
                   const SupervisedTime& time, Notify notify, Log log);

    /// Takes up what an earlier broker has left in the directory.
    void Adopt(std::vector<std::unique_ptr<StreamFile>> files);

    struct Publication {
        std::string stream;
        std::int32_t sample_bytes;
        std::int32_t samples;
        bool checksum;
        std::string key;              // empty: the first registration
        std::string user{};           // on whose account it goes, for people too
        std::int32_t latency_ms = 0;  // for other hosts; 0 and below: none
        std::int32_t deadline_s = 0;  // for other hosts; 0 and below: none
    };
    Verdict AddPublisher(const std::string& identity, const Publication& publication);
    /// -1: the stream has no publisher, or not the caller.
    Verdict RemovePublisher(const std::string& identity, const std::string& stream);
    /// Ends the registration of the stream's publisher, whichever process it is. -1: there is none.
    /// @param caller for people: "user alice (1001)".
    Verdict EndStream(const std::string& stream, const std::string& caller);
    /// Whether a subscriber with these names could be added.
    Verdict CheckSubscriber(const std::string& identity, const std::string& uuid,
                            const std::string& stream, const std::string& user = {}) const;
    Verdict AddSubscriber(const std::string& identity, const std::string& uuid,
                          const std::string& stream, const std::string& user = {});
    /// -1: there is no such subscriber, or it is of another process.
    Verdict RemoveSubscriber(const std::string& identity, const std::string& stream,
                             const std::string& uuid);

    /// The stream is imported from another broker from now on, or its next segment is: makes its
    /// file. Its subscribers are told of a publisher.
    Verdict BeginImport(const std::string& stream, const std::string& broker,
                        std::uint32_t sample_bytes, std::uint32_t samples, bool checksum);
    /// The publisher of an imported stream is out of reach; the file stays.
    void ImportLost(const std::string& stream, const std::string& why);
    /// It is back, with the same segment.
    void ImportBack(const std::string& stream);
    /// The import is over, and its file goes. For a stream that is imported.
    void EndImport(const std::string& stream);
    std::size_t Subscribers(const std::string& stream) const;

    /// What there is to say to other brokers about a stream of this host that has a living
    /// publisher; the names of broker and topic are not filled in. Not published: it has none.
    StreamDescription Describe(const std::string& stream);

    /// @param id stream of a publisher, uuid of a subscriber. Throws std::runtime_error naming the
    /// id when the caller has registered nothing under it.
    void Beat(const std::string& identity, const std::string& id);

    /// Whether the stream has a publisher, subscribers or a file.
    bool Knows(const std::string& stream) const { return streams_.count(stream) != 0; }
    bool IsPublisher(const std::string& identity, const std::string& stream) {
        return StreamOf(identity, stream) != nullptr;
    }

    /// Of the stream's publisher; from others they are ignored.
    void NewData(const std::string& identity, const std::string& stream);
    void Written(const std::string& identity, const std::string& stream, std::int64_t written_ms);

    /// Somebody has begun to listen to the stream: he is told of what is there.
    void Listening(const std::string& stream);

    /// Throws std::runtime_error when the caller does not publish the stream.
    std::string KeyFor(const std::string& identity, const std::string& stream) const;
    bool IsPublished(const std::string& stream);
    /// Whether nobody can publish it now: it has a living publisher, or is imported.
    bool IsTaken(const std::string& stream);
    std::vector<std::string> Published();
    /// None: the stream is unknown.
    std::optional<StreamState> StateOf(const std::string& stream) const;
    std::vector<StreamState> Streams() const;
    std::vector<ClientState> Clients() const;

    /// Judges everybody: to be called often, and at once when a connection was lost.
    void Supervise();
    /// The last connection of a process has ended.
    void Lost(const std::string& identity);
    /// Takes back the rows of dead readers, in some streams at each call.
    void ReapSome();
    /// Ends all registrations and removes all files, and takes no new ones.
    void Drain();
    bool draining() const { return admission_.closed(); }
    /// The end: removes the files that no living process uses.
    void Leave();

    void set_settings(const Settings& settings);

private:
    struct Publisher {
        Client client;
        std::string key;
        ProcessTag dead_writer;  // who held the file's writer role at the registration, if dead
        std::int32_t latency_ms = 0;
        std::int32_t deadline_s = 0;
    };
    struct Import {
        std::string broker;
        bool live = false;
    };
    using SubscriberMap = std::map<std::string, Client>;  // by uuid
    struct Stream {
        std::optional<Publisher> publisher;
        std::optional<Import> import;  // instead of a publisher
        SubscriberMap subscribers;
        std::unique_ptr<StreamFile> file;
        std::optional<TimePoint> removal_due;
        std::uint64_t last_write_ms = 0;
        bool unused() const {
            return !publisher && !import && subscribers.empty() && file == nullptr;
        }
    };
    using StreamMap = std::map<std::string, Stream>;

    Client::State Judge(Client& client) const {
        return client.Judge(processes_, time_.Now(), settings_.heartbeat_timeout);
    }
    void TellStalled(const std::string& what, bool before, const Client& client) const;
    StreamState StateOf(const std::string& name, const Stream& stream) const;
    Client::State JudgePublisher(Stream& stream) const;
    ProcessTag DeadWriterOf(const StreamFile& file) const;
    bool HasLivingPublisher(const std::string& name, Stream& stream);
    bool KnowsKey(const Stream& stream, const std::string& key) const;
    Verdict Resume(const std::string& identity, const Publication& publication, Stream& stream);
    Verdict Begin(const std::string& identity, const Publication& publication,
                  const StreamGeometry& geometry);
    /// What the clients that `counts` names have, but for one stream.
    template <class Counts>
    Usage UsageOf(Counts counts, const std::string& except) const;
    /// @param bytes of the stream's memory; 0: for a subscriber.
    Verdict QuotaOf(const std::string& identity, const std::string& user, const std::string& stream,
                    std::uint64_t bytes) const;
    void EndPublisher(const std::string& name, Stream& stream, const std::string& why);
    void ForgetSubscription(const std::string& uuid, const std::string& name);
    void RemoveFile(const std::string& name, Stream& stream);
    void SuperviseStream(const std::string& name, Stream& stream);
    Stream* StreamOf(const std::string& identity, const std::string& name);

    Settings settings_;
    Admission admission_;
    StreamFiles& files_;
    const Processes& processes_;
    const SupervisedTime& time_;
    const Notify notify_;
    const Log log_;
    StreamMap streams_;
    std::map<std::string, std::set<std::string>> subscriptions_;  // streams by uuid
    std::map<std::string, TimePoint> departed_;  // subscribers that have just gone, until when
    std::string last_reaped_;
};

}  // namespace kvo::brokerd
