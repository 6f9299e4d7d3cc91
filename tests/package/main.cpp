// Moves one sample through the broker at the given URI, with nothing but the public headers.
#include "kvo/KvoDataPublisher.h"
#include "kvo/KvoDataSubscriber.h"
#include "kvo/KvoDataTransferFactory.h"
#include "kvo/KvoDataTransferLib.h"
#include "kvo/KvoStatisticsClient.h"

#include <chrono>
#include <future>
#include <iostream>
#include <string>

static_assert(__cplusplus == 201703L, "the public headers are for C++17 too");

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: package-check BROKER_URI\n";
        return 2;
    }
    const std::string broker = argv[1];
    const std::string stream = "package/check";
    kvo::KvoLogger* const no_logger = nullptr;

    const auto publisher = kvo::KvoDataTransferFactory::CreatePublisher(no_logger);
    publisher->SetBufferSize(64, 4);
    publisher->set_topic_id(7);
    if (publisher->RegisterPublisher(broker, stream, true) != 1) {
        std::cerr << "the publisher was not registered\n";
        return 1;
    }
    const auto subscriber = kvo::KvoDataTransferFactory::CreateSubscriber(no_logger);
    if (subscriber->RegisterSubscriber(broker, stream, "", 1) != 1) {
        std::cerr << "the subscriber was not registered\n";
        return 1;
    }
    std::promise<std::string> arrived;
    subscriber->connect([&] {
        if (const kvo::DataSample* sample = subscriber->ReadData()) {
            const auto* text = reinterpret_cast<const char*>(sample->payload());
            arrived.set_value(std::string(text, static_cast<std::size_t>(sample->payload_size())) +
                              " " + std::to_string(sample->topic_id()) + " " +
                              std::to_string(sample->sample_tag()));
        }
    });
    publisher->WriteData(42, {'h', 'i'}, {});
    publisher->PublishData();

    auto sample = arrived.get_future();
    if (sample.wait_for(std::chrono::seconds(20)) != std::future_status::ready) {
        std::cerr << "the sample did not arrive\n";
        return 1;
    }
    const std::string text = sample.get();
    const auto written =
        kvo::KvoStatisticsClient(no_logger, broker).GetStatistics(stream).count_value_1;
    std::cout << text << ", samples written: " << written << '\n';
    subscriber->UnregisterSubscriber();
    return text == "hi 7 42" && written == 1 ? 0 : 1;
}
