#include "echo.h"

#include "gorm/cor/rr/packing.h"
#include "gorm/cor/type_registry.h"

#include <tuple>
#include <utility>

namespace gorm::cor::test {
namespace {

class EchoClient final : public Echo {
public:
    explicit EchoClient(std::unique_ptr<rr::Channel> channel) : channel_(std::move(channel)) {}
    ~EchoClient() override {
        channel_->Close();
        AwaitUsers();
    }
    boost::future<void> Connect() override { return channel_->Connect(); }
    rr::ListenerRegistration RegisterConnectionListener(
        std::function<void(bool)> listener) override {
        return channel_->RegisterConnectionListener(std::move(listener));
    }
    std::string Say(const std::string& text) override {
        return rr::UnpackResult<std::string>("Say", channel_->Request("Say", rr::PackParams(text)));
    }
    void Tell(const std::string& text) override { channel_->Notify("Tell", rr::PackParams(text)); }
    std::string CallAs(const char* method, const std::string& packed_params) override {
        return channel_->Request(method, packed_params);
    }

private:
    const std::unique_ptr<rr::Channel> channel_;
};

class WordCodec final : public ps::SampleCodec {
public:
    std::shared_ptr<void> Create() const override { return std::make_shared<Word>(); }
    Decoded Decode(std::string_view bytes) const override {
        if (bytes == "damaged") {
            return {};
        }
        return {std::make_shared<Word>(Word{std::string(bytes)}), ps::InstanceEvent::kUpdated};
    }
    std::string Encode(const void* sample, ps::InstanceEvent) const override {
        return static_cast<const Word*>(sample)->text;
    }
    std::string_view Key(const void* sample) const override {
        return static_cast<const Word*>(sample)->text;
    }
};

std::string Describe(const Peer& peer) {
    if (const auto* const local = std::get_if<LocalPeer>(&peer)) {
        return "local " + std::to_string(local->user) + " " + std::to_string(local->group) + " " +
               std::to_string(local->process);
    }
    if (const auto* const key = std::get_if<KeyPeer>(&peer)) {
        return "key " + key->public_key;
    }
    return std::get<AnonymousPeer>(peer).this_host ? "anonymous of this host" : "anonymous";
}

}  // namespace

rr::Deferred<std::string> EchoServer::Dispatch(const rr::Caller& caller, std::string_view method,
                                               const msgpack::object& params) {
    if (method == "WhoAmI") {
        return rr::PackResult(caller.identity);
    }
    if (method == "Long") {
        ++long_calls_;
        const auto [bytes] = rr::UnpackParams<std::size_t>(method, params);
        return rr::PackResult(std::string(bytes, 'x'));
    }
    auto [text] = rr::UnpackParams<std::string>(method, params);
    if (method == "Tell") {
        told.Add(text);
        return rr::PackNil();
    }
    if (method != "Say") {
        throw Error("unknown method");
    }
    if (text == "who") {
        return rr::PackResult(Describe(caller.peer));
    }
    if (text == "later") {
        later_.emplace_back();
        return later_.back();
    }
    if (text == "refuse") {
        throw Error("refused by the server");
    }
    if (on_say_) {
        on_say_();
    }
    return rr::PackResult(text);
}

std::unique_ptr<Echo> MakeClient(const std::string& uri, std::chrono::milliseconds reply_time,
                                 const Properties& properties) {
    return loadCorForUri(uri, {}).getClient<Echo>(
        network::uri(uri), {std::make_shared<rr::qos::ReplyTime>(reply_time)}, properties);
}

std::unique_ptr<ps::Subscriber<Word>> Subscribe(std::uint16_t port, const std::string& path,
                                                const Properties& properties) {
    const network::uri uri("wkp.ps://127.0.0.1:" + std::to_string(port) + path);
    return loadCorForUri(uri.string(), {}).getCor(uri).CreateSubscriber<Word>(uri, properties);
}

rr::ListenerRegistration Listen(ps::Subscriber<Word>& subscriber, Heard& heard) {
    return subscriber.AddDataListener(
        [&heard](auto&, const ps::DataEvent<Word>& event) { heard.Add(event.getData()->text); },
        {nullptr, ps::FilterMode::kAll, {ps::InstanceEvent::kUpdated}});
}

}  // namespace gorm::cor::test

extern "C" __attribute__((visibility("default"))) void kvo_cor_test_types_register_types(
    gorm::cor::TypeRegistry* types) {
    using namespace gorm::cor;
    types->AddInterface(CorTypeTraits<test::Echo>::name, [](std::unique_ptr<rr::Channel> channel) {
        return std::make_unique<test::EchoClient>(std::move(channel));
    });
    types->AddSample(CorTypeTraits<test::Word>::name, std::make_shared<test::WordCodec>());
}
