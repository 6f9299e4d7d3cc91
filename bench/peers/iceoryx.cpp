// iceoryx with its daemon RouDi; a pool with one size of chunks.
#include "daemon.h"
#include "flow.h"
#include "peers.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iceoryx_hoofs/log/logmanager.hpp>
#include <iceoryx_posh/popo/listener.hpp>
#include <iceoryx_posh/popo/untyped_publisher.hpp>
#include <iceoryx_posh/popo/untyped_subscriber.hpp>
#include <iceoryx_posh/runtime/posh_runtime.hpp>
#include <immintrin.h>
#include <stdexcept>
#include <string>

namespace kvo::bench {
namespace {

const iox::capro::ServiceDescription kService{"kvo", "bench", "samples"};
constexpr char kPublisherName[] = "kvo-bench-publisher";

std::string ReaderName(std::size_t index) {
    return "kvo-bench-reader-" + std::to_string(index);
}

// A runtime removes its socket only with its static destructor.
void RemoveSocket(const std::string& runtime) {
    std::error_code ignored;
    std::filesystem::remove("/tmp/" + runtime, ignored);
    std::filesystem::remove("/tmp/" + runtime + ".lock", ignored);
}

void StartRuntime(const std::string& name) {
    iox::log::LogManager::GetLogManager().SetDefaultLogLevel(
        iox::log::LogLevel::kWarn, iox::log::LogLevelOutput::kHideLogLevel);
    iox::runtime::PoshRuntime::initRuntime(
        iox::RuntimeName_t(iox::cxx::TruncateToCapacity, name.c_str()));
}

class IceoryxPublisher : public Publisher {
public:
    IceoryxPublisher(const Load& load, std::size_t history)
        : publisher_(kService, OptionsFor(history)),
          bytes_(static_cast<std::uint32_t>(load.bytes)) {}
    void Write(const unsigned char* payload) override {
        publisher_.loan(bytes_)
            .and_then([&](void* chunk) {
                std::memcpy(chunk, payload, bytes_);
                publisher_.publish(chunk);
            })
            .or_else([](auto) { throw std::runtime_error("no chunk is free"); });
    }

private:
    static iox::popo::PublisherOptions OptionsFor(std::size_t history) {
        iox::popo::PublisherOptions options;
        options.historyCapacity = history;
        return options;
    }

    iox::popo::UntypedPublisher publisher_;
    const std::uint32_t bytes_;
};

class IceoryxSubscriber : public Subscriber {
public:
    explicit IceoryxSubscriber(const Load& load)
        : subscriber_(kService, OptionsFor(load)), polled_(load.polled) {}
    void Receive(Account& account) override {
        account_ = &account;
        if (polled_) {
            while (!account.over()) {
                TakeAll();
                ::_mm_pause();
            }
        } else {
            iox::popo::Listener listener;
            listener
                .attachEvent(subscriber_, iox::popo::SubscriberEvent::DATA_RECEIVED,
                             iox::popo::createNotificationCallback(OnData, *this))
                .or_else(
                    [](auto) { throw std::runtime_error("attaching to the listener failed"); });
            account.AwaitEnd();
            listener.detachEvent(subscriber_, iox::popo::SubscriberEvent::DATA_RECEIVED);
        }
    }

private:
    static iox::popo::SubscriberOptions OptionsFor(const Load& load) {
        iox::popo::SubscriberOptions options;
        options.queueCapacity = load.buffers;
        return options;
    }
    static void OnData(iox::popo::UntypedSubscriber*, IceoryxSubscriber* self) { self->TakeAll(); }
    void TakeAll() {
        bool taken = true;
        while (taken) {
            subscriber_.take()
                .and_then([&](const void* chunk) {
                    account_->Take(static_cast<const unsigned char*>(chunk));
                    subscriber_.release(chunk);
                })
                .or_else([&](auto) { taken = false; });
        }
    }

    iox::popo::UntypedSubscriber subscriber_;
    const bool polled_;
    Account* account_ = nullptr;
};

class Iceoryx : public Peer {
public:
    Iceoryx(const Load& load, std::size_t history) : load_(load), history_(history) {}
    ~Iceoryx() override {
        RemoveSocket(kPublisherName);
        for (std::size_t i = 0; i < load_.readers; ++i) {
            RemoveSocket(ReaderName(i));
        }
    }
    std::unique_ptr<Publisher> MakePublisher() const override {
        StartRuntime(kPublisherName);
        return std::make_unique<IceoryxPublisher>(load_, history_);
    }
    std::unique_ptr<Subscriber> MakeSubscriber(std::size_t index) const override {
        StartRuntime(ReaderName(index));
        return std::make_unique<IceoryxSubscriber>(load_);
    }
    pid_t daemon() const override { return roudi_.process(); }

private:
    // Besides the samples in the queues and in the history: one that is written, the one before it,
    // which a publisher keeps to itself, and one that each reader looks at.
    std::string WriteConfiguration() const {
        const std::string path = directory_.path() + "/roudi.toml";
        std::ofstream(path) << "[general]\nversion = 1\n[[segment]]\n[[segment.mempool]]\nsize = "
                            << load_.bytes
                            << "\ncount = " << load_.buffers + history_ + 2 + load_.readers << '\n';
        return path;
    }

    const Load load_;
    const std::size_t history_;  // samples that the publisher keeps
    const ScratchDirectory directory_;
    const Daemon roudi_{{"iox-roudi", "-c", WriteConfiguration()}, "ready for clients"};
};

}  // namespace

std::unique_ptr<Peer> MakeIceoryx(const Load& load) {
    return std::make_unique<Iceoryx>(load, 0);
}

std::unique_ptr<Peer> MakeIceoryxWithHistory(const Load& load) {
    return std::make_unique<Iceoryx>(
        load, std::min<std::size_t>(load.buffers, iox::MAX_PUBLISHER_HISTORY));
}

}  // namespace kvo::bench
