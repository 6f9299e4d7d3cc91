// Remote streams over Cyclone DDS: one topic for each exported stream.
#include "domain_configuration.h"
#include "kvo/brokerd/federation_engine.h"
#include "kvo_sample.h"
#include "sample_cdr.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <dds/dds.h>
#include <dds/ddsi/ddsi_serdata.h>
#include <dlfcn.h>
#include <filesystem>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

namespace kvo::brokerd::dds {
namespace {

// A slow reader blocks the writer for so long; then the sample is dropped and counted.
constexpr dds_duration_t kLongestWrite = DDS_SECS(1);
constexpr std::uint32_t kAtOnce = 16;
// Samples that may wait for a slow import; beyond, its writer blocks.
constexpr std::uint64_t kMostWaitingBytes = 64ULL << 20;
constexpr std::uint64_t kMostWaiting = 10'000;

dds_entity_t Checked(dds_entity_t entity, const char* what) {
    if (entity < 0) {
        throw std::runtime_error(std::string(what) + " failed: " + ::dds_strretcode(entity));
    }
    return entity;
}

// An entity and what was made below it.
class Entity {
public:
    Entity(dds_entity_t entity, const char* what) : entity_(Checked(entity, what)) {}
    Entity(const Entity&) = delete;
    Entity& operator=(const Entity&) = delete;
    ~Entity() { ::dds_delete(entity_); }
    dds_entity_t get() const { return entity_; }

private:
    const dds_entity_t entity_;
};

using Qos = std::unique_ptr<dds_qos_t, void (*)(dds_qos_t*)>;

Qos CommonQos() {
    Qos qos(::dds_create_qos(), ::dds_delete_qos);
    ::dds_qset_reliability(qos.get(), DDS_RELIABILITY_RELIABLE, kLongestWrite);
    ::dds_qset_durability(qos.get(), DDS_DURABILITY_TRANSIENT_LOCAL);
    ::dds_qset_history(qos.get(), DDS_HISTORY_KEEP_ALL, DDS_LENGTH_UNLIMITED);
    return qos;
}

dds_entity_t MakeTopic(dds_entity_t participant, const std::string& name) {
    return ::dds_create_topic(participant, &kvo_remote_Sample_desc, name.c_str(), nullptr, nullptr);
}

class Writer final : public RemoteWriter {
public:
    Writer(dds_entity_t participant, const RemoteTopic& topic)
        : topic_(MakeTopic(participant, topic.name), "making the topic"),
          writer_(::dds_create_writer(participant, topic_.get(), QosOf(topic).get(), nullptr),
                  "making the writer") {}

    bool Write(const SampleView& sample) override {
        kvo_remote_Sample out{};
        out.epoch = sample.source_epoch;
        out.sequence_number = sample.source_sequence;
        out.timestamp_ms = sample.timestamp_ms;
        out.sample_tag = sample.sample_tag;
        out.topic_id = sample.topic_id;
        // Read only, straight from the stream file.
        out.metadata._buffer = const_cast<unsigned char*>(sample.metadata);
        out.metadata._length = out.metadata._maximum = sample.metadata_bytes;
        out.payload._buffer = const_cast<unsigned char*>(sample.payload);
        out.payload._length = out.payload._maximum = sample.payload_bytes;
        return ::dds_write(writer_.get(), &out) == DDS_RETCODE_OK;
    }

private:
    // A late reader gets the samples that readers of the publisher's host would find too. Samples
    // that readers have not acknowledged are kept beyond that: a burst must not overwrite them. No
    // latency budget: with one the engine sends by a queue of its own, and a reader that requests
    // less than is offered gets nothing. Sent at once is the best offer.
    static Qos QosOf(const RemoteTopic& topic) {
        Qos qos = CommonQos();
        ::dds_qset_durability_service(
            qos.get(), 0, DDS_HISTORY_KEEP_LAST, static_cast<std::int32_t>(topic.history),
            DDS_LENGTH_UNLIMITED, DDS_LENGTH_UNLIMITED, DDS_LENGTH_UNLIMITED);
        ::dds_qset_writer_data_lifecycle(qos.get(), false);
        if (topic.deadline_s > 0) {
            ::dds_qset_deadline(qos.get(), DDS_SECS(topic.deadline_s));
        }
        return qos;
    }

    const Entity topic_;
    const Entity writer_;
};

// A view of the bytes that the engine has assembled; the receiver copies them, once.
class TakenSample {
public:
    explicit TakenSample(ddsi_serdata* data) : data_(data) {
        ddsi_serdata_to_ser_ref(data_, 0, ddsi_serdata_size(data_), &bytes_);
    }
    TakenSample(const TakenSample&) = delete;
    TakenSample& operator=(const TakenSample&) = delete;
    ~TakenSample() {
        ddsi_serdata_to_ser_unref(data_, &bytes_);
        ddsi_serdata_unref(data_);
    }
    bool Parse(SampleView& sample) const {
        return ParseSample(static_cast<const unsigned char*>(bytes_.iov_base), bytes_.iov_len,
                           sample);
    }

private:
    ddsi_serdata* const data_;
    ddsrt_iovec_t bytes_{};
};

class Reader final : public RemoteReader {
public:
    Reader(dds_entity_t participant, const RemoteTopic& topic, const std::string& own)
        : wake_(::dds_create_guardcondition(participant), "making a condition"),
          waitset_(::dds_create_waitset(participant), "making a waitset"),
          inlets_{{{participant, topic, topic.name, waitset_.get()},
                   {participant, topic, own, waitset_.get()}}} {
        Checked(::dds_waitset_attach(waitset_.get(), wake_.get(), 0), "waiting for samples");
    }

    void Take(std::chrono::milliseconds at_most, const Receiver& receiver) override {
        if (!TakeWhatIsThere(receiver)) {
            ::dds_waitset_wait(waitset_.get(), nullptr, 0, DDS_MSECS(at_most.count()));
            ::dds_set_guardcondition(wake_.get(), false);
            TakeWhatIsThere(receiver);
        }
    }

    void Wake() override { ::dds_set_guardcondition(wake_.get(), true); }

    bool has_writer() const override {
        return std::any_of(inlets_.begin(), inlets_.end(),
                           [](const Inlet& inlet) { return inlet.has_writer(); });
    }

private:
    class Inlet {
    public:
        Inlet(dds_entity_t participant, const RemoteTopic& topic, const std::string& name,
              dds_entity_t waitset)
            : topic_(MakeTopic(participant, name), "making the topic"),
              reader_(::dds_create_reader(participant, topic_.get(), QosOf(topic).get(), nullptr),
                      "making the reader"),
              data_(::dds_create_readcondition(reader_.get(), DDS_ANY_STATE),
                    "waiting for samples") {
            Checked(::dds_set_status_mask(reader_.get(), DDS_SUBSCRIPTION_MATCHED_STATUS),
                    "watching writers");
            for (const dds_entity_t watched : {reader_.get(), data_.get()}) {
                Checked(::dds_waitset_attach(waitset, watched, 0), "waiting for samples");
            }
        }

        bool has_writer() const {
            dds_subscription_matched_status_t status{};
            ::dds_get_subscription_matched_status(reader_.get(), &status);
            return status.current_count > 0;
        }

        bool TakeWhatIsThere(const Receiver& receiver) {
            std::array<ddsi_serdata*, kAtOnce> taken{};
            std::array<dds_sample_info_t, kAtOnce> infos{};
            const std::int32_t count =
                ::dds_takecdr(reader_.get(), taken.data(), kAtOnce, infos.data(), DDS_ANY_STATE);
            for (std::int32_t i = 0; i < count; ++i) {
                const auto at = static_cast<std::size_t>(i);
                const TakenSample sample(taken[at]);
                SampleView view;
                if (infos[at].valid_data && sample.Parse(view)) {
                    receiver(view);
                }
            }
            return count > 0;
        }

    private:
        // Asks for less than any writer offers, so that all of them match.
        static Qos QosOf(const RemoteTopic& topic) {
            Qos qos = CommonQos();
            ::dds_qset_latency_budget(qos.get(), DDS_INFINITY);
            const std::uint64_t fits =
                kMostWaitingBytes / std::max<std::uint64_t>(topic.max_payload_bytes, 1);
            ::dds_qset_resource_limits(
                qos.get(),
                static_cast<std::int32_t>(std::clamp<std::uint64_t>(fits, kAtOnce, kMostWaiting)),
                DDS_LENGTH_UNLIMITED, DDS_LENGTH_UNLIMITED);
            return qos;
        }

        const Entity topic_;
        const Entity reader_;
        const Entity data_;
    };

    bool TakeWhatIsThere(const Receiver& receiver) {
        bool any = false;
        for (Inlet& inlet : inlets_) {
            any = inlet.TakeWhatIsThere(receiver) || any;
        }
        return any;
    }

    const Entity wake_;
    const Entity waitset_;
    std::array<Inlet, 2> inlets_;
};

// Where the engine's security plugins lie: beside its library, or in a folder named after that, as
// Debian has it. Empty: neither.
std::string PluginDirectory() {
    Dl_info library{};
    if (::dladdr(reinterpret_cast<const void*>(&::dds_create_domain), &library) == 0) {
        return {};
    }
    const std::filesystem::path file = library.dli_fname;
    for (const auto& directory : {file.parent_path() / "libddsc0debian", file.parent_path()}) {
        std::error_code ignored;
        if (std::filesystem::exists(directory / "libdds_security_auth.so", ignored)) {
            return directory.string();
        }
    }
    return {};
}

class Engine final : public FederationEngine {
public:
    explicit Engine(const FederationOptions& options) {
        // What the operator's environment says goes before, piece by piece.
        std::string configuration = DomainConfiguration(options, PluginDirectory());
        if (const char* const more = std::getenv("CYCLONEDDS_URI"); more != nullptr) {
            configuration += std::string(",") + more;
        }
        const dds_entity_t domain = ::dds_create_domain(options.domain, configuration.c_str());
        if (domain >= 0) {
            domain_ = std::make_unique<Entity>(domain, "");
        } else if (domain != DDS_RETCODE_PRECONDITION_NOT_MET) {  // else this process has it
            Checked(domain, "joining the DDS domain");
        }
        participant_ = std::make_unique<Entity>(
            ::dds_create_participant(options.domain, nullptr, nullptr), "joining the DDS domain");
    }

    std::unique_ptr<RemoteWriter> MakeWriter(const RemoteTopic& topic) override {
        return std::make_unique<Writer>(participant_->get(), topic);
    }
    std::unique_ptr<RemoteReader> MakeReader(const RemoteTopic& topic,
                                             const std::string& own) override {
        return std::make_unique<Reader>(participant_->get(), topic, own);
    }

private:
    std::unique_ptr<Entity> domain_;  // null: another engine of this process made it
    std::unique_ptr<Entity> participant_;
};

}  // namespace
}  // namespace kvo::brokerd::dds

extern "C" __attribute__((visibility("default"))) kvo::brokerd::FederationEngine*
kvo_make_federation_engine(int abi, const kvo::brokerd::FederationOptions& options) {
    if (abi != kvo::brokerd::kFederationAbi) {
        throw std::runtime_error("the module for remote streams is of another version (" +
                                 std::to_string(kvo::brokerd::kFederationAbi) +
                                 ") than the broker (" + std::to_string(abi) + ")");
    }
    return new kvo::brokerd::dds::Engine(options);
}
