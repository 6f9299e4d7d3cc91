#include "remote/transfer_disposer.h"

#include <utility>

namespace kvo::brokerd {

TransferDisposer::TransferDisposer() : thread_([this] { Run(); }) {}

TransferDisposer::~TransferDisposer() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_one();
    thread_.join();
}

void TransferDisposer::Dispose(std::unique_ptr<RemoteTransfer> transfer) {
    {
        const std::lock_guard lock(mutex_);
        transfers_.push_back(std::move(transfer));
    }
    changed_.notify_one();
}

void TransferDisposer::Run() {
    std::unique_lock lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return stopping_ || !transfers_.empty(); });
        if (transfers_.empty()) {
            return;
        }
        auto transfer = std::move(transfers_.front());
        transfers_.pop_front();
        lock.unlock();
        transfer.reset();
        lock.lock();
    }
}

}  // namespace kvo::brokerd
