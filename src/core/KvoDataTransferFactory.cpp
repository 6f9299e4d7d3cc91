#include "kvo/KvoDataTransferFactory.h"

namespace kvo {

std::unique_ptr<KvoDataTransferLib> KvoDataTransferFactory::CreateTransferLib(KvoLogger* logger) {
    return std::make_unique<KvoDataTransferLib>(logger);
}

std::unique_ptr<KvoDataTransferLib> KvoDataTransferFactory::CreateTransferLib(
    const log4cplus::Logger& logger) {
    return std::make_unique<KvoDataTransferLib>(logger);
}

std::unique_ptr<KvoDataPublisher> KvoDataTransferFactory::CreatePublisher(KvoLogger* logger) {
    return std::make_unique<KvoDataPublisher>(logger);
}

std::unique_ptr<KvoDataPublisher> KvoDataTransferFactory::CreatePublisher(
    const log4cplus::Logger& logger) {
    return std::make_unique<KvoDataPublisher>(logger);
}

std::unique_ptr<KvoDataSubscriber> KvoDataTransferFactory::CreateSubscriber(KvoLogger* logger) {
    return std::make_unique<KvoDataSubscriber>(logger);
}

std::unique_ptr<KvoDataSubscriber> KvoDataTransferFactory::CreateSubscriber(
    const log4cplus::Logger& logger) {
    return std::make_unique<KvoDataSubscriber>(logger);
}

}  // namespace kvo
