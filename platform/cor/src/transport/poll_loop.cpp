#include "transport/poll_loop.h"

#include "gorm/cor/errors.h"
#include "kvo/os/event_fd.h"
#include "kvo/os/fork_guard.h"
#include "transport/log.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <condition_variable>
#include <deque>
#include <exception>
#include <mutex>
#include <pthread.h>
#include <signal.h>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

namespace gorm::cor {
namespace {

using Clock = std::chrono::steady_clock;

struct Watched {
    zmq::socket_ref socket;
    std::function<void()> on_readable;
    std::function<void()> on_writable;  // once; empty: no wait for room
    bool active = true;
};

struct Timer {
    Clock::duration period;  // 0: once
    Clock::time_point due;
    std::function<void()> function;
};

void Call(const std::function<void()>& function) noexcept {
    try {
        function();
    } catch (const std::exception& error) {
        LogError(std::string("middleware thread: ") + error.what());
    } catch (...) {
        LogError("middleware thread: unknown exception");
    }
}

// A thread inherits the mask of its starter, so a signal that the application handles can never
// be delivered to it.
template <class Function>
std::unique_ptr<std::thread> StartWithoutSignals(Function function) {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    struct Restore {
        const sigset_t& mask;
        ~Restore() { pthread_sigmask(SIG_SETMASK, &mask, nullptr); }
    } restore{before};
    try {
        return std::make_unique<std::thread>(std::move(function));
    } catch (const std::system_error& error) {
        throw Error(std::string("no thread: ") + error.what());
    }
}

kvo::os::EventFd MakeWake() {
    try {
        return {};
    } catch (const std::system_error& error) {
        throw Error(error.what());
    }
}

}  // namespace

struct PollLoop::State {
    void PollOnce();
    void RunTimers();
    bool RunPosted();  // false: stopped, and nothing is left
    long PollTimeout() const;

    kvo::os::EventFd wake = MakeWake();
    mutable std::mutex mutex;
    std::condition_variable changed;           // a Run is done, or the thread has ended
    std::deque<std::function<void()>> posted;  // under the mutex
    bool stopping = false;                     // under the mutex
    bool ended = false;                        // under the mutex

    // The thread of the loop only; after its end the thread that runs a function directly.
    std::vector<std::shared_ptr<Watched>> watched;
    std::vector<std::shared_ptr<Timer>> timers;
};

long PollLoop::State::PollTimeout() const {
    {
        // One wake may stand for several posts and a stop, some of which came while a batch ran.
        const std::lock_guard lock(mutex);
        if (stopping || !posted.empty()) {
            return 0;
        }
    }
    if (timers.empty()) {
        return -1;
    }
    const auto first = std::min_element(
        timers.begin(), timers.end(), [](const auto& a, const auto& b) { return a->due < b->due; });
    const auto left = std::chrono::ceil<std::chrono::milliseconds>((*first)->due - Clock::now());
    return std::max<long>(0, static_cast<long>(left.count()));
}

void PollLoop::State::PollOnce() {
    std::vector<zmq_pollitem_t> items{{nullptr, wake.get(), ZMQ_POLLIN, 0}};
    for (const auto& entry : watched) {
        const int events = entry->on_writable ? ZMQ_POLLIN | ZMQ_POLLOUT : ZMQ_POLLIN;
        items.push_back({entry->socket.handle(), 0, static_cast<short>(events), 0});
    }
    const std::vector<std::shared_ptr<Watched>> polled = watched;
    if (zmq_poll(items.data(), static_cast<int>(items.size()), PollTimeout()) < 0) {
        if (errno != EINTR) {  // EINTR: the process was stopped and went on
            LogError(std::string("middleware thread: poll: ") + zmq_strerror(errno));
        }
        return;
    }
    if (items[0].revents != 0) {
        wake.Clear();
    }
    for (std::size_t i = 0; i < polled.size(); ++i) {
        const short ready = items[i + 1].revents;
        if ((ready & ZMQ_POLLOUT) != 0 && polled[i]->active) {
            Call(std::exchange(polled[i]->on_writable, nullptr));
        }
        if ((ready & ~ZMQ_POLLOUT) != 0 && polled[i]->active) {
            Call(polled[i]->on_readable);
        }
    }
}

void PollLoop::State::RunTimers() {
    const Clock::time_point now = Clock::now();
    const std::vector<std::shared_ptr<Timer>> all = timers;
    for (const auto& timer : all) {
        if (timer->due <= now) {
            if (timer->period == Clock::duration::zero()) {
                std::erase(timers, timer);
            }
            timer->due += timer->period;
            if (timer->due <= now) {
                timer->due = now + timer->period;  // late runs are not made up for
            }
            Call(timer->function);
        }
    }
}

bool PollLoop::State::RunPosted() {
    std::deque<std::function<void()>> batch;
    {
        const std::lock_guard lock(mutex);
        if (posted.empty()) {
            return !stopping;
        }
        batch.swap(posted);
    }
    for (auto& function : batch) {
        Call(function);
        function = nullptr;  // what it holds is freed in order, and before a waiter goes on
    }
    return true;
}

PollLoop::PollLoop(const char* thread_name) : state_(std::make_shared<State>()) {
    thread_ = StartWithoutSignals([state = state_, name = std::string(thread_name)] {
        pthread_setname_np(pthread_self(), name.c_str());
        Main(state);
    });
    id_ = thread_->get_id();
}

PollLoop::~PollLoop() {
    if (kvo::os::InForkedChild()) {
        // The thread is not in this process, but its stack and its share of the state are.
        static_cast<void>(thread_.release());
        return;
    }
    if (thread_ != nullptr && here()) {
        {
            const std::lock_guard lock(state_->mutex);
            state_->stopping = true;
        }
        state_->wake.Raise();
        thread_->detach();
        return;
    }
    Stop();
}

void PollLoop::Main(const std::shared_ptr<State>& state) {
    while (state->RunPosted()) {
        state->PollOnce();
        state->RunTimers();
    }
    state->watched.clear();
    state->timers.clear();
    const std::lock_guard lock(state->mutex);
    state->ended = true;
    state->changed.notify_all();
}

bool PollLoop::Post(std::function<void()> function) {
    if (kvo::os::InForkedChild()) {
        return false;
    }
    bool first = false;
    {
        const std::lock_guard lock(state_->mutex);
        if (state_->stopping) {
            return false;
        }
        first = state_->posted.empty();
        state_->posted.push_back(std::move(function));
    }
    if (first) {
        state_->wake.Raise();
    }
    return true;
}

void PollLoop::Run(const std::function<void()>& function) {
    if (kvo::os::InForkedChild()) {
        return;
    }
    if (here()) {
        function();
        return;
    }
    struct Outcome {
        bool done = false;
        std::exception_ptr error;
    } outcome;
    const std::shared_ptr<State> state = state_;
    // Captures by reference: this function does not return before the task has run or was dropped.
    Post([&outcome, &function, state = state.get()] {
        std::exception_ptr error;
        try {
            function();
        } catch (...) {
            error = std::current_exception();
        }
        const std::lock_guard lock(state->mutex);
        outcome.error = std::move(error);
        outcome.done = true;
        state->changed.notify_all();
    });
    {
        std::unique_lock lock(state->mutex);
        state->changed.wait(lock, [&] { return outcome.done || state->ended; });
    }
    if (!outcome.done) {
        function();
    } else if (outcome.error) {
        std::rethrow_exception(outcome.error);
    }
}

void PollLoop::Every(std::chrono::milliseconds period, std::function<void()> function) {
    auto timer = std::make_shared<Timer>(Timer{period, Clock::now() + period, std::move(function)});
    Post([state = state_.get(), timer = std::move(timer)] { state->timers.push_back(timer); });
}

void PollLoop::After(std::chrono::milliseconds delay, std::function<void()> function) {
    auto timer = std::make_shared<Timer>(
        Timer{Clock::duration::zero(), Clock::now() + delay, std::move(function)});
    Post([state = state_.get(), timer = std::move(timer)] { state->timers.push_back(timer); });
}

void PollLoop::Watch(zmq::socket_ref socket, std::function<void()> on_readable) {
    AssertHere();
    state_->watched.push_back(
        std::make_shared<Watched>(Watched{socket, std::move(on_readable), nullptr}));
}

void PollLoop::AwaitRoom(zmq::socket_ref socket, std::function<void()> on_writable) {
    AssertHere();
    for (const auto& entry : state_->watched) {
        if (entry->socket == socket) {
            entry->on_writable = std::move(on_writable);
            return;
        }
    }
}

void PollLoop::Unwatch(zmq::socket_ref socket) {
    AssertHere();
    std::erase_if(state_->watched, [socket](const auto& entry) {
        if (entry->socket != socket) {
            return false;
        }
        entry->active = false;
        return true;
    });
}

void PollLoop::Stop() {
    assert(!here() && "a loop cannot wait for its own end");
    if (thread_ == nullptr || kvo::os::InForkedChild()) {
        return;
    }
    {
        const std::lock_guard lock(state_->mutex);
        state_->stopping = true;
    }
    state_->wake.Raise();
    thread_->join();
    thread_.reset();
}

bool PollLoop::here() const {
    return id_ == std::this_thread::get_id();
}

void PollLoop::AssertHere() const {
    assert((here() || thread_ == nullptr) && "called on another thread");
}

}  // namespace gorm::cor
