// Plain Cyclone DDS with the type that the exports have.
#include "ends.h"
#include "kvo_sample.h"

#include <array>
#include <dds/dds.h>
#include <stdexcept>
#include <string>

namespace kvo::bench {
namespace {

dds_entity_t Checked(dds_entity_t entity) {
    if (entity < 0) {
        throw std::runtime_error(dds_strretcode(entity));
    }
    return entity;
}

struct Topic {
    dds_entity_t participant =
        Checked(::dds_create_participant(DDS_DOMAIN_DEFAULT, nullptr, nullptr));
    dds_entity_t topic = Checked(
        ::dds_create_topic(participant, &kvo_remote_Sample_desc, "bench", nullptr, nullptr));
    std::unique_ptr<dds_qos_t, void (*)(dds_qos_t*)> qos{::dds_create_qos(), ::dds_delete_qos};
    Topic() {
        ::dds_qset_reliability(qos.get(), DDS_RELIABILITY_RELIABLE, DDS_SECS(1));
        ::dds_qset_history(qos.get(), DDS_HISTORY_KEEP_ALL, DDS_LENGTH_UNLIMITED);
    }
};

class DdsSender final : public Sender {
public:
    void Send(const unsigned char* payload, std::size_t bytes) override {
        kvo_remote_Sample sample{};
        sample.payload._buffer = const_cast<unsigned char*>(payload);
        sample.payload._length = sample.payload._maximum = static_cast<std::uint32_t>(bytes);
        Checked(::dds_write(writer_, &sample));
    }

private:
    const Topic topic_;
    const dds_entity_t writer_ =
        Checked(::dds_create_writer(topic_.participant, topic_.topic, topic_.qos.get(), nullptr));
};

}  // namespace

std::unique_ptr<Sender> SendByDds(const Link&) {
    return std::make_unique<DdsSender>();
}

void ReceiveByDds(const Link&, const Taken& taken) {
    const Topic topic;
    const dds_entity_t reader =
        Checked(::dds_create_reader(topic.participant, topic.topic, topic.qos.get(), nullptr));
    const dds_entity_t waitset = Checked(::dds_create_waitset(topic.participant));
    Checked(::dds_waitset_attach(waitset,
                                 Checked(::dds_create_readcondition(reader, DDS_ANY_STATE)), 0));
    for (;;) {
        Checked(::dds_waitset_wait(waitset, nullptr, 0, DDS_INFINITY));
        constexpr std::uint32_t kAtOnce = 16;
        std::array<void*, kAtOnce> samples{};
        std::array<dds_sample_info_t, kAtOnce> infos{};
        const std::int32_t count =
            ::dds_take(reader, samples.data(), infos.data(), kAtOnce, kAtOnce);
        for (std::int32_t i = 0; i < count; ++i) {
            const auto at = static_cast<std::size_t>(i);
            if (infos[at].valid_data) {
                taken(static_cast<const kvo_remote_Sample*>(samples[at])->payload._buffer);
            }
        }
        ::dds_return_loan(reader, samples.data(), count);
    }
}

}  // namespace kvo::bench
