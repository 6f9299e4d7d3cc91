// This system: a broker on each host, the stream named at the other one.
#include "ends.h"
#include "kvo/KvoDataTransferFactory.h"

#include <log4cplus/logger.h>

#include <semaphore>
#include <stdexcept>
#include <thread>

namespace kvo::bench {
namespace {

constexpr const char* kStream = "bench";

log4cplus::Logger Log() {
    log4cplus::Logger log = log4cplus::Logger::getRoot();
    log.setLogLevel(log4cplus::ERROR_LOG_LEVEL);
    return log;
}

class KvoSender final : public Sender {
public:
    explicit KvoSender(const Link& link)
        : publisher_(KvoDataTransferFactory::CreatePublisher(Log())) {
        publisher_->SetBufferSize(static_cast<int>(link.bytes), link.buffers);
        if (publisher_->RegisterPublisher(link.local, kStream, false) != 1) {
            throw std::runtime_error("the publisher was not registered");
        }
    }
    void Send(const unsigned char* payload, std::size_t bytes) override {
        publisher_->WriteData(0, payload, static_cast<int>(bytes), nullptr, 0);
        publisher_->PublishData();
    }

private:
    const std::unique_ptr<KvoDataPublisher> publisher_;
};

}  // namespace

std::unique_ptr<Sender> SendByKvo(const Link& link) {
    return std::make_unique<KvoSender>(link);
}

void ReceiveByKvo(const Link& link, const Taken& taken) {
    const auto subscriber = KvoDataTransferFactory::CreateSubscriber(Log());
    while (subscriber->RegisterSubscriber(link.local, kStream, "wkp.rr://" + link.peer + ":5000",
                                          1) != 1) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    const boost::signals2::scoped_connection connection = subscriber->connect([&] {
        while (const DataSample* const sample = subscriber->ReadData()) {
            taken(sample->payload());
        }
    });
    std::binary_semaphore(0).acquire();  // to the end of the process
}

}  // namespace kvo::bench
