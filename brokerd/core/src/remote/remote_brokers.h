#pragma once

#include "gorm/cor/service_loop.h"
#include "kvo/os/thread_bound.h"
#include "remote/remote_streams.h"

#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace kvo::brokerd {

/// Sends requests to other brokers off the loop, to each on a thread of its own, so that one that
/// does not answer blocks neither the loop nor the requests to others. An answer or a refusal comes
/// within two seconds.
/// Threads: the loop.
class RemoteBrokers {
public:
    using Answer = RemoteStreams::Answer;
    using Answered = std::function<void(const Answer&)>;

    /// @param name by which others know this broker. @param loop runs the callbacks.
    RemoteBrokers(const std::string& name, gorm::cor::ServiceLoop& loop);
    RemoteBrokers(const RemoteBrokers&) = delete;
    RemoteBrokers& operator=(const RemoteBrokers&) = delete;
    /// Pending questions stay without an answer.
    ~RemoteBrokers();

    void Ask(const std::string& broker, const std::string& stream, bool to_export,
             Answered answered);

    /// The importer in this broker's requests.
    const std::string& OwnUri() const { return own_uri_; }

    /// Ends the connections that have not been used for a while. To be called now and then.
    void ForgetIdle();

private:
    class Peer;
    const std::string own_uri_;
    gorm::cor::ServiceLoop& loop_;
    os::ThreadBound thread_;
    std::map<std::string, std::shared_ptr<Peer>> peers_;  // by URI
};

}  // namespace kvo::brokerd
