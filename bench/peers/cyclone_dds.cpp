// Cyclone DDS through its C interface: reliable, keeping the last samples.
#include "flow.h"
#include "peers.h"
#include "samples.h"

#include <dds/dds.h>
#include <stdexcept>
#include <string>
#include <utility>

namespace kvo::bench {
namespace {

constexpr dds_domainid_t kDomain = 87;  // no other program's
constexpr dds_duration_t kLongestWrite = DDS_SECS(5);
// Datagrams as large as UDP has them: with the usual ones a sample of 1 MiB is 800 fragments, which
// overflow a socket's buffer again and again.
constexpr char kConfiguration[] =
    "<CycloneDDS><Domain><General><MaxMessageSize>65500B</MaxMessageSize>"
    "<FragmentSize>65000B</FragmentSize></General></Domain></CycloneDDS>";

dds_entity_t Checked(dds_entity_t entity) {
    if (entity < 0) {
        throw std::runtime_error(dds_strretcode(entity));
    }
    return entity;
}

const dds_topic_descriptor_t& TypeFor(const Load& load) {
    switch (load.bytes) {
        case 64:
            return kvo_bench_Sample64_desc;
        case 4096:
            return kvo_bench_Sample4096_desc;
        case 1048576:
            return kvo_bench_Sample1048576_desc;
        default:
            throw std::runtime_error("no type for this size");
    }
}

// A participant with the topic, alone in its domain; owns all that is made below it.
class Participant {
public:
    explicit Participant(const Load& load)
        : domain_(Checked(::dds_create_domain(kDomain, kConfiguration))),
          participant_(Checked(::dds_create_participant(kDomain, nullptr, nullptr))),
          qos_(::dds_create_qos(), ::dds_delete_qos),
          topic_(Checked(
              ::dds_create_topic(participant_, &TypeFor(load), "bench", nullptr, nullptr))) {
        ::dds_qset_reliability(qos_.get(), DDS_RELIABILITY_RELIABLE, kLongestWrite);
        ::dds_qset_history(qos_.get(), DDS_HISTORY_KEEP_LAST,
                           static_cast<std::int32_t>(load.buffers));
    }
    Participant(const Participant&) = delete;
    Participant& operator=(const Participant&) = delete;
    ~Participant() { ::dds_delete(domain_); }

    dds_entity_t MakeWriter() const {
        return Checked(::dds_create_writer(participant_, topic_, qos_.get(), nullptr));
    }
    dds_entity_t MakeReader() const {
        return Checked(::dds_create_reader(participant_, topic_, qos_.get(), nullptr));
    }

private:
    const dds_entity_t domain_;
    const dds_entity_t participant_;
    const std::unique_ptr<dds_qos_t, void (*)(dds_qos_t*)> qos_;
    const dds_entity_t topic_;
};

class CyclonePublisher : public Publisher {
public:
    explicit CyclonePublisher(const Load& load)
        : participant_(load), writer_(participant_.MakeWriter()) {}
    void Write(const unsigned char* payload) override { Checked(::dds_write(writer_, payload)); }

private:
    const Participant participant_;
    const dds_entity_t writer_;
};

class CycloneSubscriber : public Subscriber {
public:
    explicit CycloneSubscriber(const Load& load)
        : participant_(load), reader_(participant_.MakeReader()) {}
    void Receive(Account& account) override {
        const std::unique_ptr<dds_listener_t, void (*)(dds_listener_t*)> listener(
            ::dds_create_listener(&account), ::dds_delete_listener);
        ::dds_lset_data_available(listener.get(), TakeAll);
        Checked(::dds_set_listener(reader_, listener.get()));
        account.AwaitEnd();
        Checked(::dds_set_listener(reader_, nullptr));
    }

private:
    static void TakeAll(dds_entity_t reader, void* account) {
        constexpr std::uint32_t kAtOnce = 16;
        for (;;) {
            std::array<void*, kAtOnce> samples{};  // null: lent by the reader
            std::array<dds_sample_info_t, kAtOnce> infos{};
            const std::int32_t taken =
                ::dds_take(reader, samples.data(), infos.data(), kAtOnce, kAtOnce);
            if (taken <= 0) {
                return;
            }
            for (std::size_t i = 0; std::cmp_less(i, taken); ++i) {
                if (infos[i].valid_data) {
                    static_cast<Account*>(account)->Take(
                        static_cast<const unsigned char*>(samples[i]));
                }
            }
            ::dds_return_loan(reader, samples.data(), taken);
        }
    }

    const Participant participant_;
    const dds_entity_t reader_;
};

class CycloneDds : public Peer {
public:
    explicit CycloneDds(const Load& load) : load_(load) {}
    std::unique_ptr<Publisher> MakePublisher() const override {
        return std::make_unique<CyclonePublisher>(load_);
    }
    std::unique_ptr<Subscriber> MakeSubscriber(std::size_t) const override {
        return std::make_unique<CycloneSubscriber>(load_);
    }

private:
    const Load load_;
};

}  // namespace

std::unique_ptr<Peer> MakeCycloneDds(const Load& load) {
    return std::make_unique<CycloneDds>(load);
}

}  // namespace kvo::bench
