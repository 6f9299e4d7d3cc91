#pragma once

#include "kvo/broker/identifiers.h"
#include "kvo/broker/notification_sample.h"
#include "kvo/os/thread_bound.h"
#include "streams/liveness.h"
#include "streams/quotas.h"
#include "streams/stream_files.h"
#include "streams/supervised_time.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

namespace kvo::brokerd {

/// One stream: its publisher or its import, its subscribers, its file.
struct Stream {
    struct Publisher {
        Client client;
        std::string key;
        ProcessTag dead_writer;  // the file's writer at the registration, if it was dead then
        std::int32_t latency_ms = 0;
        std::int32_t deadline_s = 0;
    };
    struct Import {
        std::string broker;
        bool live = false;
    };
    std::optional<Publisher> publisher;
    std::optional<Import> import;  // instead of a publisher
    std::map<SubscriberId, Client> subscribers;
    std::unique_ptr<StreamFile> file;
    std::optional<TimePoint> removal_due;  // of the file
    std::uint64_t last_write_ms = 0;       // as the publisher has reported it

    bool unused() const { return !publisher && !import && subscribers.empty() && file == nullptr; }
    bool holds_sample() const {
        return file != nullptr && file->writer_state().newest_sequence > 0;
    }
};

struct RegistrySettings {
    std::chrono::seconds heartbeat_timeout;  // 0: heartbeats are not supervised
    std::chrono::milliseconds removal_grace;
    std::uint32_t max_streams;
    Quota per_client{};
    Quota per_user{};
};

/// The streams of a broker and what is around them, shared by the parts of the registry.
/// Threads: one.
class StreamTable {
public:
    using Map = std::map<StreamName, Stream>;
    using Notify = std::function<void(const StreamName& stream, NotificationType type)>;
    using Log = std::function<void(int level, const std::string& text)>;

    StreamTable(const RegistrySettings& settings, StreamFiles& files, const Processes& processes,
                const SupervisedTime& time, Notify notify, Log log);

    /// Null: the stream is unknown.
    Stream* Find(const StreamName& name);
    const Stream* Find(const StreamName& name) const;
    Stream& FindOrAdd(const StreamName& name);
    void EraseUnused(const StreamName& name);
    void EraseUnused();
    Map& streams() {
        thread_.here();
        return streams_;
    }
    const Map& streams() const {
        thread_.here();
        return streams_;
    }

    /// Whether a process writes the stream's file, registered or not.
    bool HasLivingWriter(const Stream& stream) const;
    /// Unlinks the file, and tells the subscribers.
    void RemoveFile(const StreamName& name, Stream& stream);

    Client::State Judge(Client& client) const;

    void Tell(const StreamName& stream, NotificationType type) const { notify_(stream, type); }
    /// One line about a stream.
    void LogInfo(const StreamName& stream, const std::string& text) const;
    void LogWarning(const StreamName& stream, const std::string& text) const;
    /// When the client has become stalled since `before`, or is so no longer.
    /// @param role for people: "publisher".
    void LogStalled(const StreamName& stream, const std::string& role, bool before,
                    const Client& client) const;

    StreamFiles& files() const { return files_; }
    TimePoint Now() const { return time_.Now(); }
    const RegistrySettings& settings() const { return settings_; }
    void set_settings(const RegistrySettings& settings) { settings_ = settings; }

private:
    os::ThreadBound thread_;
    RegistrySettings settings_;
    StreamFiles& files_;
    const Processes& processes_;
    const SupervisedTime& time_;
    const Notify notify_;
    const Log log_;
    Map streams_;
};

}  // namespace kvo::brokerd
