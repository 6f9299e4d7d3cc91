#include <kvo/KvoDataTransferFactory.h>
#include <thread>

int main() {
    auto publisher = kvo::KvoDataTransferFactory::CreatePublisher(nullptr /* no log */);
    publisher->SetBufferSize(64 /* bytes */, 16 /* samples */);
    const int code = publisher->RegisterPublisher("wkp.rr://127.0.0.1:5000", "numbers", false);
    for (int number = 1; code == 1; ++number) {
        const std::string text = std::to_string(number);
        publisher->WriteData(number, {text.begin(), text.end()}, {});
        publisher->PublishData();
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    return code;  // no broker, or the stream was refused
}
