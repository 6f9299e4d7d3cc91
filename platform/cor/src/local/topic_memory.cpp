#include "gorm/cor/ps/topic_memory.h"

#include "local/topic_ring.h"

#include <cstdint>
#include <utility>

namespace gorm::cor::ps {
namespace {

class RingWatch final : public TopicWatch {
public:
    explicit RingWatch(TopicRingReader reader) : reader_(std::move(reader)) { reader_.BeginNow(); }

    void Look() override {
        seen_ = reader_.word();  // before the looks
        while (reader_.Take()) {
        }
    }
    void Sleep(std::chrono::milliseconds at_most) override { reader_.Sleep(seen_, at_most); }
    void Wake() override { reader_.Nudge(); }
    bool closed() const override { return reader_.closed(); }

private:
    TopicRingReader reader_;
    std::uint32_t seen_ = 0;
};

}  // namespace

TopicWatch::~TopicWatch() = default;

std::unique_ptr<TopicWatch> TopicWatch::Open(const std::string& topic_directory,
                                             std::string_view path) {
    auto reader = TopicRingReader::Open(topic_directory, path);
    return reader ? std::make_unique<RingWatch>(std::move(*reader)) : nullptr;
}

std::unique_ptr<LocalTopic> OpenLocalTopic(const std::string& topic_directory,
                                           std::string_view path) {
    return TopicRingWriter::Open(topic_directory, path);
}

}  // namespace gorm::cor::ps
