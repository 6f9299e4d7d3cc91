// Another process at the same stream, for tests that kill one. Does what its arguments say,
// prints one line and waits to be killed or for the end of its input.
#include "kvo/memory/memory_accessor.h"
#include "kvo/memory/process_lock.h"

#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

namespace {

void Take(kvo::KvoMemoryAccessor& reader) {
    kvo::DataSample* sample = nullptr;
    reader.get_data_packet(nullptr, nullptr, nullptr, nullptr, nullptr, &sample);
    std::cout << (sample != nullptr ? sample->sequence_number() : 0) << ' ';
}

}  // namespace

int main(int count, char** values) {
    const std::vector<std::string> arguments(values + 1, values + count);
    std::shared_ptr<kvo::ProcessLock> lock;
    std::unique_ptr<kvo::KvoMemoryAccessor> accessor;
    if (arguments.at(0) == "join") {
        lock = kvo::ProcessLock::ForDirectory(arguments.at(1));
        const kvo::ProcessTag tag = lock->Join();
        std::cout << tag.number << ' ' << tag.nonce;
    } else {
        const int samples = std::atoi(arguments.at(3).c_str());
        accessor = std::make_unique<kvo::KvoMemoryAccessor>(arguments.at(1), arguments.at(2),
                                                            nullptr, 0, samples);
        if (arguments.at(0) == "read") {
            accessor->StartReading();
            for (int i = 0; i < samples; ++i) {
                Take(*accessor);
            }
        } else {
            accessor->SetSizeConstraints(std::atoi(arguments.at(4).c_str()), 1500);
            for (int i = 0; i < samples; ++i) {
                accessor->WriteData(-1, 0, 0, nullptr, 0, nullptr, 0, 0);
            }
            std::cout << accessor->writer_counters().written;
        }
    }
    std::cout << std::endl;
    std::cin.get();
    return 0;
}
