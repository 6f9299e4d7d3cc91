#pragma once

#include "gorm/cor/cor.h"
#include "gorm/cor/rr/packing.h"
#include "gorm/cor/rr/server.h"
#include "gorm/cor/service_loop.h"
#include "temp_directory.h"

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace gorm::cor::test {

inline constexpr std::chrono::seconds kDeadline{20};

/// A small interface whose operations return or report what they were given.
class Echo : public rr::Client {
public:
    virtual std::string Say(const std::string& text) = 0;
    virtual void Tell(const std::string& text) = 0;  // one-way
    virtual std::string CallAs(const char* method, const std::string& packed_params) = 0;
};

/// A topic's sample: a text, which is its own key.
struct Word {
    std::string text;
};

/// A value that threads set and a test waits for.
class Heard {
public:
    void Add(const std::string& text) {
        const std::lock_guard lock(mutex_);
        all_.push_back(text);
        changed_.notify_all();  // under the lock: who awaits this one may destroy us next
    }
    /// @return all that was heard, as soon as there is so much, or at the deadline.
    std::vector<std::string> Await(std::size_t count) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, kDeadline, [&] { return all_.size() >= count; });
        return all_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> all_;
};

/// Serves Echo at an address that stays the same over Stop and Start.
class EchoServer : public rr::Service {
public:
    /// @param port 0: any free one.
    explicit EchoServer(const Serving& serving = {}, std::uint16_t port = 0,
                        int max_pending_answers = 1000, std::size_t max_connections = 100)
        : max_pending_answers_(max_pending_answers),
          max_connections_(max_connections),
          port_(port) {
        Start(serving);
    }
    ~EchoServer() override { Stop(); }
    void Start(const Serving& serving = {}) {
        rr::ServerOptions options;
        options.serving = serving;
        options.max_pending_answers = max_pending_answers_;
        options.max_connections = max_connections_;
        server_ = std::make_unique<rr::Server>(loop_, network::uri(uri()), *this, options);
        port_ = server_->port();
    }
    void Stop() { server_.reset(); }
    std::uint16_t port() const { return port_; }
    std::string uri() const { return "wkp.rr://127.0.0.1:" + std::to_string(port_) + "/test/Echo"; }
    rr::Deferred<std::string> Dispatch(const rr::Caller& caller, std::string_view method,
                                       const msgpack::object& params) override;

    /// Runs the function on the loop whenever Say is called, before it is answered.
    void OnSay(std::function<void()> function) {
        loop_.Run([&] { on_say_ = std::move(function); });
    }

    /// How many have said "later" and wait.
    std::size_t later() {
        return OnLoop([this] { return later_.size(); });
    }
    /// Answers those that have said "later"; @return how many.
    std::size_t AnswerLater(const std::string& answer) {
        return OnLoop([&] {
            const auto waiting = std::exchange(later_, {});
            for (const auto& result : waiting) {
                answer.empty() ? result.Fail("it was not to be")
                               : result.Resolve(rr::PackResult(answer));
            }
            return waiting.size();
        });
    }

    void OnDisconnect(std::function<void(const rr::Caller&)> function) {
        server_->OnDisconnect(std::move(function));
    }
    /// How often Long was called.
    int long_calls() {
        return OnLoop([this] { return long_calls_; });
    }
    std::size_t connections() {
        return OnLoop([this] { return server_->connections(); });
    }

    Heard told;

private:
    template <class Function>
    std::invoke_result_t<Function> OnLoop(Function function) {
        std::invoke_result_t<Function> result{};
        loop_.Run([&] { result = function(); });
        return result;
    }

    const int max_pending_answers_;
    const std::size_t max_connections_;
    int long_calls_ = 0;                            // on the loop only
    std::vector<rr::Deferred<std::string>> later_;  // on the loop only
    std::function<void()> on_say_;  // on the loop only, which is therefore destroyed first
    ServiceLoop loop_;
    std::uint16_t port_ = 0;
    std::unique_ptr<rr::Server> server_;
};

/// The text of the exception that the function throws.
template <class Exception, class Function>
std::string TextOf(Function&& function) {
    try {
        function();
    } catch (const Exception& error) {
        return error.what();
    }
    return "nothing of this kind was thrown";
}

std::unique_ptr<Echo> MakeClient(const std::string& uri,
                                 std::chrono::milliseconds reply_time = kDeadline,
                                 const Properties& properties = {});

/// @param path the topic, at a publisher of this host.
std::unique_ptr<ps::Subscriber<Word>> Subscribe(std::uint16_t port, const std::string& path,
                                                const Properties& properties = {});

/// Adds what comes to what was heard.
rr::ListenerRegistration Listen(ps::Subscriber<Word>& subscriber, Heard& heard);

/// A runtime directory of its own, which this process's clients look into.
class RuntimeDirectory : public kvo::test::TempDirectory {
public:
    RuntimeDirectory() { ::setenv("KVO_RUNTIME_DIRECTORY", path().c_str(), 1); }
    ~RuntimeDirectory() { ::unsetenv("KVO_RUNTIME_DIRECTORY"); }
    std::string PathOf(const std::string& name) const { return path() / name; }
};

}  // namespace gorm::cor::test

template <>
struct gorm::cor::CorTypeTraits<gorm::cor::test::Echo> {
    static constexpr const char* name = "test.Echo";
    static constexpr const char* libraryName = "kvo-cor-test-types";
};
template <>
struct gorm::cor::CorTypeTraits<gorm::cor::test::Word> {
    static constexpr const char* name = "test.Word";
    static constexpr const char* libraryName = "kvo-cor-test-types";
};
