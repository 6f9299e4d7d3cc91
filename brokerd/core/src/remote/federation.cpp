#include "remote/federation.h"

#include "access/access.h"
#include "gorm/cor/ps/local_topic.h"
#include "kvo/KvoLogger.h"
#include "kvo/os/hex.h"
#include "kvo/os/random_bytes.h"
#include "remote/federation_engine_loader.h"
#include "remote/remote_topic_name.h"
#include "remote/stream_export.h"
#include "remote/stream_import.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <utility>

namespace kvo::brokerd {
namespace {

std::string RandomId() {
    std::array<unsigned char, 16> bytes{};
    os::FillRandom(bytes.data(), bytes.size());
    return os::ToHex(bytes.data(), bytes.size());
}

}  // namespace

Federation::Federation(Settings settings, gorm::cor::ServiceLoop& loop, StreamRegistry& registry,
                       const StreamFiles& files, const SupervisedTime& time, Topics& topics,
                       KvoLogger* logger)
    : settings_(std::move(settings)),
      loop_(loop),
      files_(files),
      topics_(topics),
      logger_(logger),
      brokers_(settings_.name, loop) {
    streams_ = std::make_unique<RemoteStreams>(RandomId(), settings_.name, registry, time, Calls());
}

Federation::~Federation() {
    *alive_ = false;
    streams_->EndAll();
    streams_.reset();
    disposer_.reset();
    engine_.reset();
}

void Federation::Tick() {
    thread_.here();
    streams_->Tick();
    brokers_.ForgetIdle();
}

template <class Function>
void Federation::PostIfAlive(Function function) {
    loop_.Post([alive = alive_, function = std::move(function)] {
        if (*alive) {  // both on the loop
            function();
        }
    });
}

RemoteStreams::Calls Federation::Calls() {
    RemoteStreams::Calls calls;
    calls.ask = [this](const std::string& broker, const std::string& stream, bool to_export,
                       std::function<void(const RemoteStreams::Answer&)> answered) {
        brokers_.Ask(
            broker, stream, to_export,
            [alive = alive_, answered = std::move(answered)](const RemoteStreams::Answer& answer) {
                if (*alive) {
                    answered(answer);
                }
            });
    };
    calls.start_import = [this](const RemoteStreams::ImportOrder& order) {
        return StartImport(order);
    };
    calls.start_export = [this](const RemoteStreams::ExportOrder& order) {
        return StartExport(order);
    };
    calls.end = [this](std::unique_ptr<RemoteTransfer> transfer) {
        disposer_->Dispose(std::move(transfer));
    };
    calls.always_exported = [this](const std::string& stream) {
        return std::any_of(
            settings_.exported.begin(), settings_.exported.end(),
            [&stream](const std::string& pattern) { return IsLike(stream, pattern); });
    };
    calls.log = [this](int level, const std::string& text) {
        KvoLogger::WriteToLogger(logger_, level, text);
    };
    return calls;
}

FederationEngine& Federation::Engine() {
    if (engine_ == nullptr) {
        engine_ = settings_.load ? settings_.load(settings_.engine)
                                 : LoadFederationEngine(settings_.engine);
        disposer_ = std::make_unique<TransferDisposer>();
    }
    return *engine_;
}

std::unique_ptr<RemoteTransfer> Federation::StartImport(const RemoteStreams::ImportOrder& order) {
    const RemoteTopic topic{order.source.topic, order.source.retained_samples, 0,
                            order.source.max_payload_bytes};
    const std::string& stream = order.stream;
    // Null: subscribers are notified by the loop alone.
    const std::shared_ptr<gorm::cor::ps::LocalTopic> local =
        settings_.topic_directory.empty()
            ? nullptr
            : gorm::cor::ps::LocalTopic::Open(settings_.topic_directory, "/" + stream);
    const auto posted = std::make_shared<std::atomic<bool>>(false);
    StreamImport::Calls calls;
    calls.written = [this, stream, local, posted] {
        if (local != nullptr) {
            local->Notify();
            if (!local->relayed()) {
                return;
            }
        }
        // One that is pending stands for all samples so far.
        if (!posted->exchange(true, std::memory_order_acq_rel)) {  // [relay-posted]
            PostIfAlive([this, stream, posted, relay = local != nullptr] {
                posted->store(false, std::memory_order_release);  // [relay-posted]
                relay ? topics_.Relay(StreamName(stream))
                      : topics_.Publish(StreamName(stream), NEW_DATA);
            });
        }
    };
    calls.linked = [this, stream, run = order.run](bool linked) {
        PostIfAlive([this, stream, run, linked] { streams_->Linked(stream, run, linked); });
    };
    calls.outdated = [this, stream, run = order.run] {
        PostIfAlive([this, stream, run] { streams_->Outdated(stream, run); });
    };
    return std::make_unique<StreamImport>(
        StreamImport::Order{files_.PathOf(StreamName(stream)), order.source.epoch, topic,
                            OwnTopicOf(topic.name, brokers_.OwnUri())},
        Engine(), std::move(calls));
}

std::unique_ptr<RemoteTransfer> Federation::StartExport(const RemoteStreams::ExportOrder& order) {
    const std::string common = TopicOf(settings_.name, order.stream);
    const RemoteTopic topic{order.importer.empty() ? common : OwnTopicOf(common, order.importer),
                            order.source.retained_samples, order.source.deadline_s,
                            order.source.max_payload_bytes};
    FederationEngine& engine = Engine();
    auto watch =
        settings_.topic_directory.empty()
            ? nullptr
            : gorm::cor::ps::TopicWatch::Open(settings_.topic_directory, "/" + order.stream);
    return std::make_unique<StreamExport>(
        StreamExport::Order{order.stream, files_.PathOf(StreamName(order.stream)),
                            order.source.epoch, topic},
        engine, std::move(watch), logger_);
}

}  // namespace kvo::brokerd
