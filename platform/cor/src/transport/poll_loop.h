#pragma once

#include <zmq.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <thread>

namespace gorm::cor {

/// A thread that sleeps until a socket is readable, a function was posted or a timer is due. All
/// that runs on it runs one after the other; what it throws is logged. Signals are blocked on it.
/// Threads: any, where nothing else is said.
class PollLoop {
public:
    explicit PollLoop(const char* thread_name);  // throws Error
    PollLoop(const PollLoop&) = delete;
    PollLoop& operator=(const PollLoop&) = delete;
    /// Stop(). On the loop itself: the thread ends by itself once the running function returned
    /// and what was posted has run.
    ~PollLoop();

    /// @return false: the loop has been stopped and the function is dropped.
    bool Post(std::function<void()> function);
    /// Runs the function on the loop, waits for it and passes its exception on. On the loop, and
    /// after its end, directly; in a forked child not at all.
    void Run(const std::function<void()>& function);
    void Every(std::chrono::milliseconds period, std::function<void()> function);
    /// Once.
    void After(std::chrono::milliseconds delay, std::function<void()> function);

    /// On the loop (Post, Run): calls the function whenever the socket is readable, until Unwatch
    /// or the end of the thread, which also destroys the function.
    void Watch(zmq::socket_ref socket, std::function<void()> on_readable);
    void Unwatch(zmq::socket_ref socket);
    /// On the loop, for a watched socket: calls the function once, as soon as the socket takes
    /// messages again.
    void AwaitRoom(zmq::socket_ref socket, std::function<void()> on_writable);

    /// Ends the thread after what was posted before; not on the loop itself.
    void Stop();
    bool here() const;
    /// In debug builds ends the process on another thread, unless the loop has been stopped.
    void AssertHere() const;

private:
    struct State;
    static void Main(const std::shared_ptr<State>& state);

    std::shared_ptr<State> state_;         // shared with the thread, which may outlive us
    std::unique_ptr<std::thread> thread_;  // null after Stop
    std::thread::id id_;                   // constant after construction
};

}  // namespace gorm::cor
