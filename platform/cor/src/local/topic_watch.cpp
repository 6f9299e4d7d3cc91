#include "gorm/cor/ps/topic_watch.h"

#include "local/topic_ring_reader.h"

#include <cstdint>
#include <utility>

namespace gorm::cor::ps {
namespace {

class RingWatch final : public TopicWatch {
public:
    explicit RingWatch(TopicRingReader reader) : reader_(std::move(reader)) {
        reader_.BeginNow();
        reader_.ReleaseThread();
    }

    void Refresh() override {
        seen_ = reader_.sequence();  // before the checks
        while (reader_.Take()) {
        }
    }
    void Sleep(std::chrono::milliseconds at_most) override { reader_.Sleep(seen_, at_most); }
    void Wake() override { reader_.Wake(); }
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

}  // namespace gorm::cor::ps
