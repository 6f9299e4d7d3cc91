// This system through its public interface, with a broker in a process of its own.
#include "daemon.h"
#include "flow.h"
#include "peers.h"

#include <filesystem>
#include <immintrin.h>
#include <kvo/KvoDataTransferFactory.h>
#include <stdexcept>

namespace kvo::bench {
namespace {

constexpr char kStream[] = "bench";

void CheckRegistered(int code) {
    if (code != 1) {
        throw std::runtime_error("registration failed with " + std::to_string(code));
    }
}

class KvoPublisher : public Publisher {
public:
    KvoPublisher(const std::string& broker, const Load& load)
        : bytes_(static_cast<int>(load.bytes)) {
        publisher_->SetBufferSize(bytes_, static_cast<int>(load.buffers));
        CheckRegistered(publisher_->RegisterPublisher(broker, kStream, false));
    }
    void Write(const unsigned char* payload) override {
        publisher_->WriteData(0, payload, bytes_, nullptr, 0);
    }
    void Tell() override { publisher_->PublishData(); }

private:
    const std::unique_ptr<KvoDataPublisher> publisher_ =
        KvoDataTransferFactory::CreatePublisher(nullptr);
    const int bytes_;
};

class KvoSubscriber : public Subscriber {
public:
    KvoSubscriber(const std::string& broker, bool polled) : polled_(polled) {
        CheckRegistered(subscriber_->RegisterSubscriber(broker, kStream, "", 1));
    }
    void Receive(Account& account) override {
        if (polled_) {
            while (!account.over()) {
                TakeAll(account);
                ::_mm_pause();
            }
        } else {
            subscriber_->connect([&] { TakeAll(account); });
            account.AwaitEnd();
        }
    }

private:
    void TakeAll(Account& account) {
        while (const DataSample* sample = subscriber_->ReadData()) {
            account.Take(sample->payload());
        }
    }

    const std::unique_ptr<KvoDataSubscriber> subscriber_ =
        KvoDataTransferFactory::CreateSubscriber(nullptr);
    const bool polled_;
};

class Kvo : public Peer {
public:
    Kvo(const Load& load, const char* local_topics)
        : load_(load),
          broker_({std::filesystem::read_symlink("/proc/self/exe").replace_filename("kvo-broker"),
                   "--port", "0", "--directory", memory_.path(), "--log-level", "warning",
                   "--local-topics", local_topics},
                  "listening at ") {}
    std::unique_ptr<Publisher> MakePublisher() const override {
        return std::make_unique<KvoPublisher>(broker_.answer(), load_);
    }
    std::unique_ptr<Subscriber> MakeSubscriber(std::size_t) const override {
        return std::make_unique<KvoSubscriber>(broker_.answer(), load_.polled);
    }
    pid_t daemon() const override { return broker_.process(); }

private:
    const Load load_;
    const ScratchDirectory memory_;
    const Daemon broker_;
};

}  // namespace

std::unique_ptr<Peer> MakeKvo(const Load& load) {
    return std::make_unique<Kvo>(load, "true");
}

std::unique_ptr<Peer> MakeKvoWire(const Load& load) {
    return std::make_unique<Kvo>(load, "false");
}

}  // namespace kvo::bench
