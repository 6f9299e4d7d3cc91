// Fast DDS with data sharing: reliable, keeping the last samples, which readers see in place.
#include "flow.h"
#include "peers.h"

#include <array>
#include <cstring>
#include <fastdds/dds/core/LoanableSequence.hpp>
#include <fastdds/dds/domain/DomainParticipant.hpp>
#include <fastdds/dds/domain/DomainParticipantFactory.hpp>
#include <fastdds/dds/publisher/DataWriter.hpp>
#include <fastdds/dds/publisher/Publisher.hpp>
#include <fastdds/dds/subscriber/DataReader.hpp>
#include <fastdds/dds/subscriber/DataReaderListener.hpp>
#include <fastdds/dds/subscriber/SampleInfo.hpp>
#include <fastdds/dds/subscriber/Subscriber.hpp>
#include <fastdds/dds/topic/Topic.hpp>
#include <fastdds/dds/topic/TopicDataType.hpp>
#include <fastdds/dds/topic/TypeSupport.hpp>
#include <stdexcept>
#include <string>

namespace kvo::bench {
namespace {

namespace dds = eprosima::fastdds::dds;
using eprosima::fastrtps::rtps::InstanceHandle_t;
using eprosima::fastrtps::rtps::SerializedPayload_t;
using eprosima::fastrtps::types::ReturnCode_t;

constexpr dds::DomainId_t kDomain = 88;  // no other program's

template <class T>
T* Checked(T* entity, const char* what) {
    if (entity == nullptr) {
        throw std::runtime_error(std::string(what) + " was not made");
    }
    return entity;
}

// An array of bytes: its form in memory is that in the payload, behind four bytes that say so.
class BytesType : public dds::TopicDataType {
public:
    explicit BytesType(std::size_t bytes) : bytes_(static_cast<std::uint32_t>(bytes)) {
        setName(("bytes" + std::to_string(bytes)).c_str());
        m_typeSize = bytes_ + kEncapsulation.size();
        auto_fill_type_object(false);
        auto_fill_type_information(false);
    }
    bool serialize(void* data, SerializedPayload_t* payload) override {
        if (payload->max_size < m_typeSize) {
            return false;
        }
        payload->encapsulation = CDR_LE;
        payload->length = m_typeSize;
        std::memcpy(payload->data, kEncapsulation.data(), kEncapsulation.size());
        std::memcpy(payload->data + kEncapsulation.size(), data, bytes_);
        return true;
    }
    bool deserialize(SerializedPayload_t* payload, void* data) override {
        if (payload->length < m_typeSize) {
            return false;
        }
        std::memcpy(data, payload->data + kEncapsulation.size(), bytes_);
        return true;
    }
    std::function<std::uint32_t()> getSerializedSizeProvider(void*) override {
        return [size = m_typeSize] { return size; };
    }
    void* createData() override { return new unsigned char[bytes_]; }
    void deleteData(void* data) override { delete[] static_cast<unsigned char*>(data); }
    bool getKey(void*, InstanceHandle_t*, bool) override { return false; }
    bool is_bounded() const override { return true; }
    bool is_plain() const override { return true; }
    bool construct_sample(void*) const override { return true; }

private:
    static constexpr std::array<unsigned char, 4> kEncapsulation{0, 1, 0, 0};
    const std::uint32_t bytes_;
};

// A participant with the topic; owns all that is made below it.
class Participant {
public:
    explicit Participant(const Load& load)
        : participant_(Checked(dds::DomainParticipantFactory::get_instance()->create_participant(
                                   kDomain, dds::PARTICIPANT_QOS_DEFAULT),
                               "participant")) {
        const dds::TypeSupport type(new BytesType(load.bytes));
        type.register_type(participant_);
        topic_ = Checked(
            participant_->create_topic("bench", type.get_type_name(), dds::TOPIC_QOS_DEFAULT),
            "topic");
    }
    Participant(const Participant&) = delete;
    Participant& operator=(const Participant&) = delete;
    ~Participant() {
        participant_->delete_contained_entities();
        dds::DomainParticipantFactory::get_instance()->delete_participant(participant_);
    }
    dds::DomainParticipant* operator->() const { return participant_; }
    dds::Topic* topic() const { return topic_; }

private:
    dds::DomainParticipant* const participant_;
    dds::Topic* topic_ = nullptr;
};

// What writer and reader have in common.
template <class Qos>
Qos QosFor(const Load& load, Qos qos) {
    const auto buffers = static_cast<std::int32_t>(load.buffers);
    qos.reliability().kind = dds::RELIABLE_RELIABILITY_QOS;
    qos.history().kind = dds::KEEP_LAST_HISTORY_QOS;
    qos.history().depth = buffers;
    qos.resource_limits().max_instances = 1;
    qos.resource_limits().max_samples = buffers;
    qos.resource_limits().max_samples_per_instance = buffers;
    qos.resource_limits().allocated_samples = buffers;
    qos.data_sharing().on("");  // and nothing else; in the directory that is usual
    return qos;
}

class FastDdsPublisher : public Publisher {
public:
    explicit FastDdsPublisher(const Load& load)
        : participant_(load),
          writer_(Checked(
              Checked(participant_->create_publisher(dds::PUBLISHER_QOS_DEFAULT), "publisher")
                  ->create_datawriter(participant_.topic(),
                                      QosFor(load, dds::DATAWRITER_QOS_DEFAULT)),
              "writer")) {}
    void Write(const unsigned char* payload) override {
        if (!writer_->write(const_cast<unsigned char*>(payload))) {
            throw std::runtime_error("a sample was refused");
        }
    }

private:
    const Participant participant_;
    dds::DataWriter* const writer_;
};

class FastDdsSubscriber : public Subscriber, private dds::DataReaderListener {
public:
    explicit FastDdsSubscriber(const Load& load)
        : participant_(load),
          reader_(Checked(
              Checked(participant_->create_subscriber(dds::SUBSCRIBER_QOS_DEFAULT), "subscriber")
                  ->create_datareader(participant_.topic(),
                                      QosFor(load, dds::DATAREADER_QOS_DEFAULT)),
              "reader")) {}
    void Receive(Account& account) override {
        account_ = &account;
        reader_->set_listener(this);
        account.AwaitEnd();
        reader_->set_listener(nullptr);
    }

private:
    void on_data_available(dds::DataReader* reader) override {
        dds::LoanableSequence<unsigned char> samples;  // first bytes of payloads
        dds::SampleInfoSeq infos;
        while (reader->take(samples, infos) == ReturnCode_t::RETCODE_OK) {
            for (dds::LoanableCollection::size_type i = 0; i < samples.length(); ++i) {
                if (infos[i].valid_data) {
                    account_->Take(&samples[i]);
                }
            }
            reader->return_loan(samples, infos);
        }
    }

    Account* account_ = nullptr;
    const Participant participant_;
    dds::DataReader* const reader_;
};

class FastDds : public Peer {
public:
    explicit FastDds(const Load& load) : load_(load) {}
    std::unique_ptr<Publisher> MakePublisher() const override {
        return std::make_unique<FastDdsPublisher>(load_);
    }
    std::unique_ptr<Subscriber> MakeSubscriber(std::size_t) const override {
        return std::make_unique<FastDdsSubscriber>(load_);
    }

private:
    const Load load_;
};

}  // namespace

std::unique_ptr<Peer> MakeFastDds(const Load& load) {
    return std::make_unique<FastDds>(load);
}

}  // namespace kvo::bench
