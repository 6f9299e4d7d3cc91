#pragma once

#include "captured_log.h"
#include "gorm/cor/ps/publisher.h"
#include "gorm/cor/rr/server.h"
#include "gorm/cor/rr/service.h"
#include "gorm/cor/service_loop.h"
#include "kvo/broker/data_broker_registration_sync.h"
#include "kvo/broker/stream_description.h"
#include "kvo/memory/process_lock.h"
#include "kvo/memory/stream_file.h"
#include "temp_directory.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace kvo::test {

/// A broker whose answers the test sets, on the real middleware. Without a script it accepts
/// everything; it offers capabilities only if LocalTopics() is set for the run.
/// Threads: any.
class ScriptedBroker final : public gorm::cor::rr::Service {
public:
    struct Failure {
        std::string text;  // the request is answered with this error
    };
    struct Silence {};  // answered by Always at Resume() or Stop()
    struct Nothing {};
    using Answer = std::variant<Nothing, bool, std::int32_t, std::string, std::vector<std::string>,
                                StreamDescription, Failure, Silence>;

    ScriptedBroker();
    ~ScriptedBroker() override;

    std::string uri() const;  // without a path
    std::string full_uri() const { return uri() + "/broker/Broker1"; }
    std::uint16_t notification_port() const { return notification_port_; }
    /// Whether publishers wake subscribers through memory and the stream file has the counters.
    const bool local;

    /// Answers every later call of the operation.
    void Always(const std::string& operation, Answer answer);
    /// Answers the next calls of the operation, one each; Always answers those that follow.
    void Next(const std::string& operation, std::vector<Answer> answers);
    /// Ends the silence of all operations.
    void Resume();

    /// Closes both ports, as a killed broker; Start opens the same ports again.
    void Stop();
    void Start();

    /// Calls since ClearCalls, in order, as "Operation(a, 1, true)". Without SendHeartbeat and
    /// GetCapabilities, which arrive at any time.
    std::vector<std::string> calls() const;
    std::size_t Count(const std::string& prefix) const;
    bool WaitForCall(const std::string& prefix, std::size_t times = 1) const;
    void ClearCalls();

    struct Heartbeat {
        std::string id;
        std::chrono::steady_clock::time_point at;
    };
    std::vector<Heartbeat> heartbeats() const;
    bool WaitForHeartbeats(std::size_t count) const;

    /// Returns when the client has received the capabilities.
    void AwaitCapabilities(DataBrokerRegistrationSync& client) const;

    /// Sends one notification to the subscribers of the stream; waits for the first of them, unless
    /// local topics hide it from the broker. @return false when none subscribed in time.
    bool Notify(const std::string& stream, std::uint32_t type);
    /// As Notify, but an event without a sample in it.
    bool NotifyBytes(const std::string& stream, const std::string& bytes);

    /// Makes a stream file and answers its path from now on.
    StreamFile& CreateStream(const std::string& stream, int max_payload_bytes = 64,
                             int retained_samples = 4);
    const std::string& stream_path() const { return stream_path_; }

private:
    // On the loop.
    void OpenTopic(const std::string& stream);
    gorm::cor::rr::Deferred<std::string> Dispatch(const gorm::cor::rr::Caller& caller,
                                                  std::string_view method,
                                                  const msgpack::object& params) override;

    const TempDirectory directory_;
    const std::shared_ptr<ProcessLock> lock_;
    std::string stream_path_;
    std::vector<std::unique_ptr<StreamFile>> stream_files_;

    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::map<std::string, Answer> always_;
    std::map<std::string, std::deque<Answer>> next_;
    std::vector<std::string> calls_;
    std::vector<Heartbeat> heartbeats_;
    std::map<std::string, int> subscriptions_;  // by path
    int capabilities_asked_ = 0;
    int silence_ = 0;  // rises with every Resume
    bool stopped_ = true;

    std::uint16_t port_ = 0;
    std::uint16_t notification_port_ = 0;
    gorm::cor::ServiceLoop loop_;
    std::unique_ptr<gorm::cor::rr::Server> server_;
    std::unique_ptr<gorm::cor::ps::Publisher> publisher_;
};

}  // namespace kvo::test
