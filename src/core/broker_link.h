#pragma once

#include "kvo/broker/data_broker_registration_sync.h"
#include "kvo/os/light_mutex.h"

#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>

namespace kvo {

/// Owns an object's broker client. Threads: any; the lock covers only the look at the pointer,
/// the call itself runs without it, and the client's destruction waits for the calls inside.
class BrokerLink {
public:
    /// Installs the client (or none) and deletes the one before, whose calls in flight fail.
    void Replace(std::unique_ptr<DataBrokerRegistrationSync> client) {
        {
            const std::lock_guard lock(mutex_);
            client_.swap(client);
        }
    }

    /// Hands the client over; there is none afterwards.
    std::unique_ptr<DataBrokerRegistrationSync> Take() {
        const std::lock_guard lock(mutex_);
        return std::move(client_);
    }

    /// Runs the function on the client. Throws std::logic_error naming the operation when there is
    /// none, and what the call throws.
    template <class Function>
    auto Call(const char* operation, Function&& function) {
        std::unique_lock lock(mutex_);
        if (client_ == nullptr) {
            throw std::logic_error(std::string("no broker client for ") + operation);
        }
        DataBrokerRegistrationSync& client = *client_;
        const gorm::cor::rr::Client::Use use(client);
        lock.unlock();
        return std::forward<Function>(function)(client);
    }

private:
    os::LightMutex mutex_;
    std::unique_ptr<DataBrokerRegistrationSync> client_;
};

}  // namespace kvo
