// Another process at the same stream, for tests that kill one: "join DIRECTORY", or one sample by
// "read PATH STREAM" or "write PATH STREAM". Prints its id and what came of it in one line and
// waits to be killed.
#include "sample_stream.h"

#include <csignal>
#include <iostream>
#include <memory>
#include <string>
#include <sys/prctl.h>
#include <unistd.h>
#include <vector>

int main(int count, char** values) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    const std::vector<std::string> arguments(values + 1, values + count);
    std::shared_ptr<kvo::ProcessLock> lock;
    std::unique_ptr<kvo::KvoMemoryAccessor> accessor;
    std::cout << ::getpid() << ' ';
    if (arguments.at(0) == "join") {
        lock = kvo::ProcessLock::ForDirectory(arguments.at(1));
        const kvo::ProcessTag tag = lock->Join();
        std::cout << tag.number << ' ' << tag.nonce;
    } else if (arguments.at(0) == "read") {
        accessor = std::make_unique<kvo::KvoMemoryAccessor>(arguments.at(1), arguments.at(2),
                                                            nullptr, 0, 1);
        accessor->StartReading();
        const kvo::DataSample* const sample = kvo::test::Take(*accessor);
        std::cout << (sample != nullptr ? sample->sequence_number() : 0);
    } else {
        accessor = kvo::test::OpenWriter(arguments.at(1), arguments.at(2), 64);
        accessor->WriteData(-1, 0, 0, nullptr, 0, nullptr, 0, 0);
    }
    std::cout << std::endl;
    ::pause();
    return 0;
}
