#include <iostream>
#include <kvo/KvoDataTransferFactory.h>

int main() {
    auto subscriber = kvo::KvoDataTransferFactory::CreateSubscriber(nullptr /* no log */);
    if (subscriber->RegisterSubscriber("wkp.rr://127.0.0.1:5000", "numbers", "", 1) != 1)
        return 1;  // no broker, or no publisher yet
    subscriber->connect([&] {
        while (const kvo::DataSample* sample = subscriber->ReadData()) {
            const std::string text(sample->payload(), sample->payload() + sample->payload_size());
            std::cout << text << std::endl;
        }
    });
    std::cin.get();  // Enter ends it
}
