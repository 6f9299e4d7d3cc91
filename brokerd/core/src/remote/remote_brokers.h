#pragma once

#include "gorm/cor/service_loop.h"
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

/// Asks other brokers off the loop, each on a thread of its own, so that one that does not answer
/// keeps neither the loop nor the questions to others waiting. An answer or a refusal is there
/// within two seconds.
/// Threads: the loop.
class RemoteBrokers {
public:
    using Answer = RemoteStreams::Answer;
    using Answered = std::function<void(const Answer&)>;

    /// @param name what others shall call this broker. @param loop gets the answers.
    RemoteBrokers(const std::string& name, gorm::cor::ServiceLoop& loop);
    RemoteBrokers(const RemoteBrokers&) = delete;
    RemoteBrokers& operator=(const RemoteBrokers&) = delete;
    /// Questions that wait are not answered any more.
    ~RemoteBrokers();

    void Ask(const std::string& broker, const std::string& stream, bool to_export,
             Answered answered);

    /// What others know this broker as.
    const std::string& OwnUri() const { return own_uri_; }

    /// Ends the connections that have not been used for a while. To be called now and then.
    void ForgetIdle();

private:
    class Peer;
    const std::string own_uri_;
    gorm::cor::ServiceLoop& loop_;
    std::map<std::string, std::shared_ptr<Peer>> peers_;  // by URI
};

/// The URI of a broker's requests, complete. Throws std::runtime_error saying why the text is none.
std::string CompleteBrokerUri(const std::string& text);

}  // namespace kvo::brokerd
