#pragma once

#include "kvo/KvoDataPublisher.h"
#include "kvo/KvoDataSubscriber.h"
#include "kvo/KvoDataTransferLib.h"

#include <memory>

namespace kvo {

/// Creates the library's objects; the caller owns them. What a constructor throws passes through.
class KVO_TRANSFER_EXPORT KvoDataTransferFactory {
public:
    static std::unique_ptr<KvoDataTransferLib> CreateTransferLib(KvoLogger* logger);
    static std::unique_ptr<KvoDataTransferLib> CreateTransferLib(const log4cplus::Logger& logger);
    static std::unique_ptr<KvoDataPublisher> CreatePublisher(KvoLogger* logger);
    static std::unique_ptr<KvoDataPublisher> CreatePublisher(const log4cplus::Logger& logger);
    static std::unique_ptr<KvoDataSubscriber> CreateSubscriber(KvoLogger* logger);
    static std::unique_ptr<KvoDataSubscriber> CreateSubscriber(const log4cplus::Logger& logger);
};

}  // namespace kvo
