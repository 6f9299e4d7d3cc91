#include "mischief.h"

#include "simulated_client.h"

#include <array>
#include <limits>
#include <string_view>
#include <utility>

namespace kvo::bench {
namespace {

// Every operation with the kinds of its parameters: stream or uuid, usually empty text, int32,
// int64, bool.
using Operation = std::pair<std::string_view, std::string_view>;
constexpr std::array<Operation, 22> kOperations{
    {{"SendHeartbeat", "s"},        {"AddPublisher", "siiiibe"},  {"RemovePublisher", "s"},
     {"NotifyNewData", "s"},        {"AddSubscriber", "sseii"},   {"RemoveSubscriber", "ss"},
     {"GetPublisherKey", "s"},      {"GetNotificationPort", "s"}, {"GetStreamStatistics", "s"},
     {"GetHeartbeatPeriod", ""},    {"GetHeartbeatTimeout", ""},  {"GetShmFilePath", "s"},
     {"GetExistingShmPath", "s"},   {"IsStreamIdFree", "s"},      {"HasLocalPublisher", "s"},
     {"HasRemotePublisher", "es"},  {"ReportDataWritten", "sil"}, {"GetMaxBufferSize", "i"},
     {"ListRegisteredStreams", ""}, {"ListConnectedBrokers", ""}, {"GetCapabilities", ""},
     {"GetRefusalReason", "s"}}};

template <class T>
T Number(Mischief& mischief) {
    const std::array<T, 4> extremes{std::numeric_limits<T>::min(), std::numeric_limits<T>::max(),
                                    -1, 0};
    return mischief.OneIn(10) ? extremes[mischief.Draw(extremes.size())]
                              : static_cast<T>(mischief.Draw(100));
}

}  // namespace

std::string Mischief::Bytes(std::uint64_t fewer_than) {
    std::string bytes(Draw(fewer_than), '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(random_());
    }
    return bytes;
}

Frames Mischief::Request() {
    Frames frames{std::string(kBrokerPath), Call()};
    if (OneIn(16)) {
        frames.resize(Draw(6) + 1, OneIn(2) ? "" : Bytes(40));
    }
    if (OneIn(16)) {
        frames[Draw(frames.size())] = Bytes(OneIn(20) ? 9000 : 60);
    }
    if (OneIn(2000)) {
        frames.back().resize(70'000);  // too large: ends the connection
    }
    if (!OneIn(3)) {
        // Rather often in the call than in the path.
        Mutate(frames[OneIn(8) ? 0 : frames.size() - 1]);
    }
    return frames;
}

std::string Mischief::Subscription() {
    std::string text = std::string(1, static_cast<char>(Draw(2))) + "/" + Name() + '\0';
    if (OneIn(3)) {
        Mutate(text);
    }
    return text;
}

void Mischief::Mutate(std::string& bytes) {
    // Heads of arrays, maps, texts, binaries and extensions that are longer than any message.
    static constexpr std::array<std::string_view, 5> kHuge{
        "\xdd\xff\xff\xff\xff", "\xdf\xff\xff\xff\xff", "\xdb\x7f\xff\xff\xff",
        "\xc6\xff\xff\xff\xf0", "\xc9\xff\xff\xff\xff"};
    const auto place = bytes.empty() ? 0 : Draw(bytes.size());
    const auto way = Draw(7);
    if (way == 0) {
        bytes.resize(place);
    } else if (way == 1) {
        bytes += Bytes(40);
    } else if (way == 2) {
        bytes.insert(place, kHuge[Draw(kHuge.size())]);
    } else if (way == 3) {
        bytes.insert(place, std::string(Draw(OneIn(50) ? 60'000 : 40), '\x91'));  // nested
    } else if (way == 4) {
        bytes.insert(place, bytes.substr(Draw(bytes.size() + 1), Draw(40)));
    } else if (!bytes.empty()) {
        bytes[place] = static_cast<char>(bytes[place] ^ (1 << Draw(8)));
    }
    if (OneIn(2)) {
        Mutate(bytes);
    }
}

std::string Mischief::Call() {
    const auto& [method, kinds] = kOperations[Draw(kOperations.size())];
    msgpack::sbuffer buffer;
    msgpack::packer<msgpack::sbuffer> packer(buffer);
    if (OneIn(4)) {
        packer.pack_array(3).pack(2);
    } else {
        packer.pack_array(4).pack(0).pack(static_cast<std::uint32_t>(random_()));
    }
    packer.pack(method);
    const std::string_view params = kinds.substr(!kinds.empty() && OneIn(30) ? 1 : 0);
    packer.pack_array(static_cast<std::uint32_t>(params.size()));
    for (const char kind : params) {
        PackParam(packer, OneIn(25) ? "seilbn"[Draw(6)] : kind);
    }
    return {buffer.data(), buffer.size()};
}

void Mischief::PackParam(msgpack::packer<msgpack::sbuffer>& packer, char kind) {
    if (kind == 's' || kind == 'e') {
        packer.pack(kind == 's' || OneIn(8) ? Name() : std::string());
    } else if (kind == 'i') {
        packer.pack(Number<std::int32_t>(*this));
    } else if (kind == 'l') {
        packer.pack(Number<std::int64_t>(*this));
    } else if (kind == 'b') {
        packer.pack(OneIn(2));
    } else {
        packer.pack_nil();
    }
}

std::string Mischief::Name() {
    return OneIn(30) ? Bytes(400) : "storm/" + std::to_string(Draw(100));
}

}  // namespace kvo::bench
