#pragma once

#include "remote/remote_transfer.h"

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

namespace kvo::brokerd {

/// Destroys transfers on a thread of its own, since the destructor of one may take a second.
/// Threads: any. The destructor returns when all are destroyed.
class TransferDisposer {
public:
    TransferDisposer();
    TransferDisposer(const TransferDisposer&) = delete;
    TransferDisposer& operator=(const TransferDisposer&) = delete;
    ~TransferDisposer();

    void Dispose(std::unique_ptr<RemoteTransfer> transfer);

private:
    void Run();

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::unique_ptr<RemoteTransfer>> transfers_;  // under the mutex
    bool stopping_ = false;                                  // under the mutex
    std::thread thread_;
};

}  // namespace kvo::brokerd
