#include "notification_codec.h"

#include "kvo/broker/notification_sample.h"

#include <msgpack.hpp>

#include <cstdint>
#include <string>
#include <string_view>

namespace kvo {
namespace {

using gorm::cor::ps::InstanceEvent;
using gorm::cor::ps::SampleCodec;

class Notification final : public NotificationSample {
public:
    [[gnu::hot]] NotificationType get_notification_type() const override { return type_; }
    void set_notification_type(NotificationType type) override { type_ = type; }
    const std::string& get_data_stream_identifier() const override { return stream_; }
    void set_data_stream_identifier(const std::string& stream) override { stream_ = stream; }

private:
    NotificationType type_ = NEW_DATA;
    std::string stream_;
};

constexpr std::uint32_t kNotificationElements = 3;
// Nothing here is deeper or longer. The middleware bounds the message.
constexpr std::size_t kMaxElements = 16;

class NotificationCodec final : public SampleCodec {
public:
    std::shared_ptr<void> Create() const override { return std::make_shared<Notification>(); }

    Decoded Decode(std::string_view bytes) const override {
        try {
            const msgpack::object_handle handle = msgpack::unpack(
                bytes.data(), bytes.size(), [](auto, auto, void*) { return true; }, nullptr,
                msgpack::unpack_limit(kMaxElements, kMaxElements, bytes.size(), bytes.size(), 0,
                                      kMaxElements));
            const msgpack::object& array = handle.get();
            if (array.type != msgpack::type::ARRAY ||
                array.via.array.size < kNotificationElements) {
                return {};
            }
            const msgpack::object* const elements = array.via.array.ptr;
            auto sample = std::make_shared<Notification>();
            // A later broker may send types that have no name here: the number stays as it is.
            sample->set_notification_type(
                static_cast<NotificationType>(elements[0].as<std::uint32_t>()));
            sample->set_data_stream_identifier(elements[1].as<std::string>());
            return {sample, static_cast<InstanceEvent>(elements[2].as<std::uint32_t>())};
        } catch (const msgpack::type_error&) {
            return {};
        } catch (const msgpack::unpack_error&) {
            return {};
        }
    }

    std::string Encode(const void* sample, InstanceEvent instance_event) const override {
        const auto& notification = *static_cast<const Notification*>(sample);
        msgpack::sbuffer buffer;
        msgpack::packer<msgpack::sbuffer> packer(buffer);
        packer.pack_array(kNotificationElements);
        packer.pack(static_cast<std::uint32_t>(notification.get_notification_type()));
        packer.pack(notification.get_data_stream_identifier());
        packer.pack(static_cast<std::uint32_t>(instance_event));
        return std::string(buffer.data(), buffer.size());
    }

    [[gnu::hot]] std::string_view Key(const void* sample) const override {
        return static_cast<const Notification*>(sample)->get_data_stream_identifier();
    }
};

}  // namespace

NotificationSample::~NotificationSample() = default;

std::shared_ptr<const SampleCodec> MakeNotificationCodec() {
    return std::make_shared<NotificationCodec>();
}

}  // namespace kvo
