#include "local/topic_ring_memory.h"

#include "gorm/cor/errors.h"
#include "kvo/os/crash_point.h"
#include "kvo/os/hex.h"
#include "kvo/os/regular_file.h"
#include "transport/log.h"

#include <xxhash.h>

#include <exception>
#include <system_error>
#include <utility>

namespace gorm::cor::ps {
namespace {

constexpr int kAttempts = 5;

void CheckLayout(const ring::EventsFile& file, const std::string& path, std::string_view topic) {
    if (file.magic != ring::kMagic) {
        throw Error(path + " holds no events");
    }
    if (file.version != ring::kVersion) {
        throw Error(path + " has layout " + std::to_string(file.version) + ", not " +
                    std::to_string(ring::kVersion));
    }
    if (file.path_bytes != topic.size() || std::string_view(file.path, topic.size()) != topic) {
        throw Error(path + " is another topic's");
    }
}

}  // namespace

std::string EventsPath(const std::string& directory, std::string_view topic) {
    // Only a name: the topic stands in the file and is compared.
    return directory + "/" + kvo::os::ToHex(XXH3_64bits(topic.data(), topic.size())) +
           kEventsSuffix;
}

key_t SignalKey(const std::string& directory) {
    // Never 0, which names none.
    return static_cast<key_t>(XXH3_64bits(directory.data(), directory.size()) | 1);
}

kvo::os::MappedFile MapEvents(const std::string& path, kvo::os::MappedFile::Access access) {
    return kvo::os::MapTrustedFile(path, sizeof(ring::EventsFile), access);
}

SystemVMemory AttachSignal(const ring::EventsFile& file, const std::string& path) {
    const std::string what = "the signal of " + path;
    try {
        SystemVMemory memory = SystemVMemory::Attach(file.signal, sizeof(ring::Signal));
        if (memory.as<const ring::Signal>().nonce == file.nonce) {
            return memory;
        }
    } catch (const std::exception& error) {
        throw Error(what + ": " + error.what());
    }
    throw Error(what + ": System V memory " + std::to_string(file.signal) +
                " is another one, or of another namespace");
}

// A server that replaces the ring meanwhile causes another attempt.
std::optional<TopicRingMemory> TopicRingMemory::Open(const std::string& directory,
                                                     std::string_view topic) {
    if (topic.size() > ring::kMostPathBytes) {
        return std::nullopt;
    }
    const std::string path = EventsPath(directory, topic);
    std::string reason;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        try {
            kvo::os::MappedFile events = MapEvents(path, kvo::os::MappedFile::Access::kRead);
            KVO_CRASH_POINT("ring's events opened");
            const auto& file = events.as<const ring::EventsFile>();
            CheckLayout(file, path, topic);
            SystemVMemory signal = AttachSignal(file, path);
            KVO_CRASH_POINT("ring's signal attached");
            return TopicRingMemory{std::move(events), TopicSignal(std::move(signal))};
        } catch (const std::system_error& error) {
            if (error.code() == std::errc::no_such_file_or_directory) {
                return std::nullopt;
            }
            reason = error.what();
            break;  // no permission, for instance: the next attempt would end the same way
        } catch (const std::exception& error) {
            reason = error.what();
        }
    }
    WarnOnce("no local topic, its events go over sockets: " + reason);
    return std::nullopt;
}

}  // namespace gorm::cor::ps
