#include "layout/geometry.h"
#include "layout/segment.h"
#include "memory_fixture.h"

#include <functional>
#include <stdexcept>
#include <unistd.h>

namespace kvo::test {
namespace {

class DamagedFileTest : public MemoryTest {
protected:
    // The reason for which the file is refused; empty: it is not.
    std::string Refusal() const {
        try {
            static_cast<void>(StreamFile::Open(path_));
            return {};
        } catch (const std::exception& error) {
            return error.what();
        }
    }
};

TEST_F(DamagedFileTest, HeadersThatDoNotAddUpAreRefusedWithAReason) {
    using Fields = layout::HeaderFields;
    struct Case {
        const char* reason;
        std::function<void(Fields&)> damage;
    };
    const std::vector<Case> cases{
        {"layout version 1, known is 2", [](Fields& f) { f.layout_version = 1; }},
        {"damaged header", [](Fields& f) { f.header_bytes = 8; }},
        {"foreign byte order", [](Fields& f) { f.byte_order = 0x04030201; }},
        {"unknown features", [](Fields& f) { f.features |= 2; }},
        {"offsets", [](Fields& f) { f.reader_entries = 1 << 20; }},
        {"payload size 0", [](Fields& f) { f.max_payload_bytes = 0; }},
        {"payload size", [](Fields& f) { f.max_payload_bytes = 0xFFFFFFFF; }},
        {"slot stride", [](Fields& f) { f.max_payload_bytes += 64; }},
        {"metadata size", [](Fields& f) { f.max_metadata_bytes = 1501; }},
        {"number of samples 0", [](Fields& f) { f.retained_samples = 0; }},
        {"number of samples", [](Fields& f) { f.retained_samples = 0xFFFFFFFF; }},
        {"slot count", [](Fields& f) { f.retained_samples += 1; }},
        {"pin limits", [](Fields& f) { f.pinning_entries = 257; }},
        {"pin limits", [](Fields& f) { f.pins_per_entry = 7; }},
        {"pin limits", [](Fields& f) { f.reclaim_batch = 0; }},
        {"slot count", [](Fields& f) { f.slot_count = 0xFFFFFFFF; }},
        {"offsets", [](Fields& f) { f.index_entries = 1 << 30; }},
        {"slot stride", [](Fields& f) { f.slot_stride = 64; }},
        {"offsets", [](Fields& f) { f.index_offset = 1ULL << 60; }},
        {"offsets", [](Fields& f) { f.slot_headers_offset += 8; }},
        {"offsets", [](Fields& f) { f.payload_offset = 0; }},
        {"file size", [](Fields& f) { f.file_bytes *= 2; }},
        {"stream identifier", [](Fields& f) { f.stream_bytes = 256; }},
        {"control file is missing", [](Fields& f) { f.uuid[0] ^= 1; }},
    };
    for (const Case& c : cases) {
        const auto file = Create(5);
        {
            const auto segment = Segment::Open(path_, Segment::Access::kWrite);
            auto* header = reinterpret_cast<layout::DataHeader*>(
                reinterpret_cast<unsigned char*>(&segment->words()) - layout::kWordsOffset);
            c.damage(header->fields);
            header->fields.header_digest = HeaderDigest(header->fields);
        }
        const std::string refusal = Refusal();
        EXPECT_NE(refusal.find(c.reason), std::string::npos) << c.reason << ": " << refusal;
        EXPECT_NE(refusal.find(path_), std::string::npos) << refusal;
    }
}

TEST_F(DamagedFileTest, FilesThatAreNoPairAreRefused) {
    auto file = Create(5);
    ASSERT_EQ(Refusal(), "");
    const auto bytes = file->geometry().file_bytes;
    for (const std::uint64_t size : {bytes + 4096, bytes - 4096, std::uint64_t{100}, 0UL}) {
        ASSERT_EQ(::truncate(path_.c_str(), static_cast<off_t>(size)), 0);
        EXPECT_NE(Refusal().find("bytes"), std::string::npos) << size;
    }
    file = Create(5);
    const std::string current = Segment::ControlPath(path_, file->uuid());
    ASSERT_EQ(::truncate(current.c_str(), 4096), 0);
    EXPECT_NE(Refusal().find("4096 bytes instead of"), std::string::npos);
    std::filesystem::remove(current);
    std::filesystem::create_symlink("/dev/zero", current);
    EXPECT_NE(Refusal(), "");
    std::filesystem::remove(path_);
    std::filesystem::create_symlink("elsewhere", path_);
    EXPECT_NE(Refusal(), "");
    std::filesystem::remove(path_);
    std::filesystem::create_directory(path_);
    EXPECT_NE(Refusal(), "");
}

TEST_F(DamagedFileTest, ForeignPinsTakeNoMoreSlotsThanThereAreForThem) {
    const auto file = Create(1, Spare(0, 6));
    const auto segment = Segment::Open(path_, Segment::Access::kWrite);
    const auto writer = Writer();
    ASSERT_EQ(segment->geometry().pinning_entries, 1U);
    ASSERT_LE(segment->geometry().slot_count, 8U);
    segment->control().used_entries = 0xFFFFFFFF;
    for (std::uint32_t k = 0; k < 6; ++k) {
        segment->reader_entry(0).pins[k] = k % 2 == 0 ? k + 1 : 0xFFFFFFFF;
    }
    Write(*writer, 1, 50);
    EXPECT_EQ(writer->writer_counters().dropped, 0U)
        << "reader entries and pins are bounded by construction";
}

}  // namespace
}  // namespace kvo::test
