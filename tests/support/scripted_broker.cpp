#include "scripted_broker.h"

#include "gorm/cor/cor.h"
#include "gorm/cor/rr/packing.h"
#include "kvo/broker/capabilities.h"
#include "kvo/broker/notification_sample.h"
#include "local_topics.h"
#include "sample_stream.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace kvo::test {
namespace {

// One parameter of a call; an empty text is shown as "".
void Append(std::string& text, const msgpack::object& parameter) {
    std::ostringstream one;
    if (parameter.type == msgpack::type::STR && parameter.via.str.size > 0) {
        one << parameter.as<std::string>();
    } else {
        one << parameter;
    }
    text += (text.back() == '(' ? "" : ", ") + one.str();
}

std::string Describe(std::string_view method, const msgpack::object& params) {
    std::string text = std::string(method) + "(";
    for (std::uint32_t i = 0; i < params.via.array.size; ++i) {
        Append(text, params.via.array.ptr[i]);
    }
    return text + ")";
}

// A closed port is free again after a while, without an event.
template <class Make>
auto Retry(Make&& make) {
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    while (true) {
        try {
            return make();
        } catch (const gorm::cor::BindError&) {
            if (std::chrono::steady_clock::now() > deadline) {
                throw;
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

using Texts = std::vector<std::string>;

std::size_t CountPrefix(const Texts& calls, const std::string& prefix) {
    return static_cast<std::size_t>(
        std::count_if(calls.begin(), calls.end(),
                      [&](const std::string& call) { return call.rfind(prefix, 0) == 0; }));
}

struct Packer {
    std::string operator()(const ScriptedBroker::Failure& failure) const {
        throw std::runtime_error(failure.text);
    }
    std::string operator()(ScriptedBroker::Nothing) const { return gorm::cor::rr::PackNil(); }
    std::string operator()(ScriptedBroker::Silence) const { return gorm::cor::rr::PackNil(); }
    template <class Result>
    std::string operator()(const Result& result) const {
        return gorm::cor::rr::PackResult(result);
    }
};

network::uri Loopback(const std::string& scheme, std::uint16_t port, const std::string& path) {
    return network::uri(scheme + "://127.0.0.1:" + std::to_string(port) + path);
}

}  // namespace

ScriptedBroker::ScriptedBroker()
    : local(LocalTopics(false)), lock_(ProcessLock::ForDirectory(directory_.path())) {
    Start();
    const std::lock_guard lock(mutex_);
    for (const char* operation : {"AddPublisher", "RemovePublisher", "AddSubscriber",
                                  "RemoveSubscriber", "GetHeartbeatPeriod"}) {
        always_[operation] = 1;
    }
    for (const char* operation : {"IsStreamIdFree", "HasLocalPublisher", "HasRemotePublisher"}) {
        always_[operation] = true;
    }
    for (const char* operation : {"GetPublisherKey", "GetShmFilePath", "GetExistingShmPath"}) {
        always_[operation] = std::string();
    }
    for (const char* operation :
         {"GetStreamStatistics", "ListRegisteredStreams", "ListConnectedBrokers"}) {
        always_[operation] = Texts();
    }
    if (local) {
        always_["GetCapabilities"] =
            Texts{kLocalAccountingCapability,
                  std::string(kLocalTopicsCapability) + " " + std::to_string(notification_port_)};
    } else {
        always_["GetCapabilities"] = Failure{"unknown method"};
    }
    always_["GetNotificationPort"] = std::int32_t{notification_port_};
    always_["GetHeartbeatTimeout"] = 10;
}

ScriptedBroker::~ScriptedBroker() {
    Stop();
    loop_.Stop();
}

std::string ScriptedBroker::uri() const {
    return "wkp.rr://127.0.0.1:" + std::to_string(port_);
}

void ScriptedBroker::Always(const std::string& operation, Answer answer) {
    const std::lock_guard lock(mutex_);
    always_[operation] = std::move(answer);
}

void ScriptedBroker::Next(const std::string& operation, std::vector<Answer> answers) {
    const std::lock_guard lock(mutex_);
    auto& queue = next_[operation];
    std::move(answers.begin(), answers.end(), std::back_inserter(queue));
}

void ScriptedBroker::Resume() {
    {
        const std::lock_guard lock(mutex_);
        ++silence_;
    }
    changed_.notify_all();
}

void ScriptedBroker::Stop() {
    {
        const std::lock_guard lock(mutex_);
        stopped_ = true;
    }
    changed_.notify_all();
    server_.reset();
    publisher_.reset();
    const std::lock_guard lock(mutex_);
    subscriptions_.clear();
}

void ScriptedBroker::Start() {
    {
        const std::lock_guard lock(mutex_);
        stopped_ = false;
    }
    loop_.Run([this] {  // so that no subscription comes before the callback
        publisher_ = Retry([this] {
            gorm::cor::Serving serving;
            if (local) {
                serving.runtime_directory = "";  // where clients look
                serving.topic_directory = directory_.path() / "topics";
            }
            return std::make_unique<gorm::cor::ps::Publisher>(
                loop_, Loopback("wkp.ps", notification_port_, ""), serving);
        });
        publisher_->OnSubscription([this](std::string_view path, bool begins) {
            {
                const std::lock_guard lock(mutex_);
                subscriptions_[std::string(path)] += begins ? 1 : -1;
            }
            changed_.notify_all();
        });
    });
    notification_port_ = publisher_->port();
    server_ = Retry([this] {
        return std::make_unique<gorm::cor::rr::Server>(
            loop_, Loopback("wkp.rr", port_, "/broker/Broker1"), *this);
    });
    port_ = server_->port();
}

std::vector<std::string> ScriptedBroker::calls() const {
    const std::lock_guard lock(mutex_);
    return calls_;
}

std::size_t ScriptedBroker::Count(const std::string& prefix) const {
    return CountPrefix(calls(), prefix);
}

bool ScriptedBroker::WaitForCall(const std::string& prefix, std::size_t times) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kDeadline, [&] { return CountPrefix(calls_, prefix) >= times; });
}

void ScriptedBroker::ClearCalls() {
    const std::lock_guard lock(mutex_);
    calls_.clear();
    heartbeats_.clear();
}

std::vector<ScriptedBroker::Heartbeat> ScriptedBroker::heartbeats() const {
    const std::lock_guard lock(mutex_);
    return heartbeats_;
}

bool ScriptedBroker::WaitForHeartbeats(std::size_t count) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kDeadline, [&] { return heartbeats_.size() >= count; });
}

namespace {

std::string Encode(const std::string& stream, std::uint32_t type) {
    const auto codec =
        gorm::cor::Cor::FindSample(gorm::cor::CorTypeTraits<NotificationSample>::name,
                                   gorm::cor::CorTypeTraits<NotificationSample>::libraryName);
    const auto sample = std::static_pointer_cast<NotificationSample>(codec->Create());
    sample->set_notification_type(static_cast<NotificationType>(type));
    sample->set_data_stream_identifier(stream);
    return codec->Encode(sample.get(), gorm::cor::ps::InstanceEvent::kUpdated);
}

}  // namespace

void ScriptedBroker::OpenTopic(const std::string& stream) {
    if (local) {
        publisher_->OpenLocal("/" + stream, Encode(stream, NEW_DATA));
    }
}

void ScriptedBroker::AwaitCapabilities(DataBrokerRegistrationSync& client) const {
    {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, kDeadline, [this] { return capabilities_asked_ > 0; });
    }
    try {
        client.GetCapabilities();
    } catch (const gorm::cor::rr::RemoteError&) {  // there are none
    }
}

bool ScriptedBroker::Notify(const std::string& stream, std::uint32_t type) {
    return NotifyBytes(stream, Encode(stream, type));
}

bool ScriptedBroker::NotifyBytes(const std::string& stream, const std::string& bytes) {
    const std::string path = "/" + stream;
    if (!local) {
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, kDeadline, [&] { return subscriptions_[path] > 0; })) {
            return false;
        }
    }
    loop_.Run([&] { publisher_->Publish(path, bytes); });
    return true;
}

StreamFile& ScriptedBroker::CreateStream(const std::string& stream, int max_payload_bytes,
                                         int retained_samples) {
    stream_path_ = directory_.path() / ("stream-" + std::to_string(stream_files_.size()));
    stream_files_.push_back(test::CreateStream(stream_path_, stream, max_payload_bytes,
                                               retained_samples, {}, stream_files_.size() + 1));
    Always("GetShmFilePath", stream_path_);
    return *stream_files_.back();
}

gorm::cor::rr::Deferred<std::string> ScriptedBroker::Dispatch(const gorm::cor::rr::Caller&,
                                                              std::string_view method,
                                                              const msgpack::object& params) {
    const std::string operation(method);
    std::unique_lock lock(mutex_);
    if (operation == "SendHeartbeat") {
        heartbeats_.push_back(
            {params.via.array.ptr[0].as<std::string>(), std::chrono::steady_clock::now()});
    } else if (operation == "GetCapabilities") {
        ++capabilities_asked_;
    } else {
        calls_.push_back(Describe(method, params));
    }
    if (operation == "AddPublisher" || operation == "GetNotificationPort") {
        OpenTopic(params.via.array.ptr[0].as<std::string>());
    }
    Answer answer = always_[operation];
    if (auto& queue = next_[operation]; !queue.empty()) {
        answer = queue.front();
        queue.pop_front();
    }
    changed_.notify_all();
    if (std::holds_alternative<Silence>(answer)) {
        changed_.wait(lock, [this, before = silence_] { return stopped_ || silence_ != before; });
        answer = always_[operation];
    }
    return std::visit(Packer(), answer);
}

}  // namespace kvo::test
