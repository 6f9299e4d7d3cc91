#include "gorm/cor/ps/local_topic.h"

#include "gorm/cor/serving.h"
#include "local/runtime_directory.h"
#include "local/topic_ring_memory.h"

#include <utility>

namespace gorm::cor::ps {
namespace {

class TopicRingWriter final : public LocalTopic {
public:
    explicit TopicRingWriter(TopicRingMemory memory) : memory_(std::move(memory)) {}

    [[gnu::hot]] void Notify() override { memory_.signal.Notify(); }
    [[gnu::hot]] bool relayed() const override {
        // [ring-relayed] Sequentially consistent, after Notify(): see TopicRingServer::SetRelayed.
        return memory_.events().relayed.load(std::memory_order_seq_cst) != 0;
    }
    [[gnu::hot]] bool closed() const override { return memory_.closed(); }

private:
    TopicRingMemory memory_;
};

}  // namespace

LocalTopic::~LocalTopic() = default;

std::unique_ptr<LocalTopic> LocalTopic::Open(const std::string& topic_directory,
                                             std::string_view path) {
    auto memory = TopicRingMemory::Open(topic_directory, path);
    return memory ? std::make_unique<TopicRingWriter>(std::move(*memory)) : nullptr;
}

std::unique_ptr<LocalTopic> LocalTopic::Find(const std::string& host, std::uint16_t port,
                                             std::string_view path) {
    const std::string directory = IsLoopback(host) ? FindLocalTopics(port) : "";
    return directory.empty() ? nullptr : Open(directory, path);
}

}  // namespace gorm::cor::ps
