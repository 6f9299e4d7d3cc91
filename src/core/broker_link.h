#pragma once

#include "core/sample_path.h"
#include "kvo/broker/data_broker_registration_sync.h"
#include "kvo/os/light_mutex.h"

#include <cassert>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>

namespace kvo {

/// Owns an object's broker client and, of a publisher, the path of its samples, which goes with
/// the client. Threads: any. The lock covers only the access to the pointers; calls run without it,
/// and the destruction of the client waits for the calls inside.
class BrokerLink {
public:
    /// Installs the client (or none) and deletes the one before, whose calls in flight fail.
    void Replace(std::unique_ptr<DataBrokerRegistrationSync> client) {
        ChangePath([&](SamplePath& path) {
            client_.swap(client);
            OpenReporter(path);
        });
    }

    /// Hands the client over; there is none afterwards.
    std::unique_ptr<DataBrokerRegistrationSync> Take() {
        std::unique_ptr<DataBrokerRegistrationSync> client;
        ChangePath([&](SamplePath& path) {
            client = std::move(client_);
            OpenReporter(path);
        });
        return client;
    }

    /// Calls a member of the client. Throws std::logic_error when there is no client, and what the
    /// call throws.
    template <class Operation, class... Arguments>
    auto Call(Operation operation, Arguments&&... arguments) {
        std::unique_lock lock(mutex_);
        if (client_ == nullptr) {
            throw std::logic_error("no broker client");
        }
        DataBrokerRegistrationSync& client = *client_;
        const gorm::cor::rr::Client::Use use(client);
        lock.unlock();
        return std::invoke(operation, client, std::forward<Arguments>(arguments)...);
    }

    void SetStream(const std::string& data_stream_identifier) {
        ChangePath([&](SamplePath& path) {
            path.data_stream_identifier = data_stream_identifier;
            OpenReporter(path);
        });
    }
    /// The accessor before, if any, is deleted after the new one has taken its place.
    void SetAccessor(const std::shared_ptr<KvoMemoryAccessor>& accessor) {
        ChangePath([&](SamplePath& path) { path.accessor = accessor; });
    }
    /// After the loss of the connection, which leaves the reporter with the lost broker's topic.
    void ReopenReporter() {
        ChangePath([this](SamplePath& path) { OpenReporter(path); });
    }
    /// Never null.
    std::shared_ptr<const SamplePath> path() const {
        const std::lock_guard lock(mutex_);
        assert(path_ != nullptr);
        return path_;
    }

private:
    template <class Change>
    void ChangePath(Change change) {
        std::shared_ptr<const SamplePath> before;  // deleted outside the lock
        const std::lock_guard lock(mutex_);
        auto path = std::make_shared<SamplePath>(*path_);
        change(*path);
        before = std::exchange(path_, std::move(path));
    }
    void OpenReporter(SamplePath& path) const {
        path.reporter =
            client_ == nullptr ? nullptr : client_->OpenStream(path.data_stream_identifier);
    }

    mutable os::LightMutex mutex_;
    std::unique_ptr<DataBrokerRegistrationSync> client_;
    std::shared_ptr<const SamplePath> path_ = std::make_shared<const SamplePath>();
};

}  // namespace kvo
