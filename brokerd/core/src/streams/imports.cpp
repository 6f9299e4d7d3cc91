#include "streams/imports.h"

#include "streams/publisher_key.h"
#include "streams/stream_name.h"

#include <cassert>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace kvo::brokerd {

Verdict Imports::Begin(const StreamName& name, const std::string& broker,
                       std::uint32_t max_payload_bytes, std::uint32_t retained_samples,
                       bool checksum) {
    if (Verdict verdict = admission_.CheckPublisher(name); verdict.refused()) {
        return verdict;
    }
    if (Stream* const known = table_.Find(name);
        known != nullptr && !known->import &&
        (publishers_.HasLiving(name, *known) || table_.HasLivingWriter(*known))) {
        return {kStreamInUse, Titled(name) + " has a publisher of this host, so it cannot be " +
                                  "imported from " + broker};
    }
    try {
        // What is too large for the type comes out negative, and is refused as that.
        const StreamGeometry geometry =
            table_.files().Plan(static_cast<std::int32_t>(max_payload_bytes),
                                static_cast<std::int32_t>(retained_samples));
        if (Verdict verdict = table_.files().CheckRoom(name, geometry.total_bytes());
            verdict.refused()) {
            return verdict;
        }
        Stream& stream = table_.FindOrAdd(name);
        stream.file =
            table_.files().Create(name, geometry, DrawPublisherKey(), checksum, stream.file);
        stream.import = Stream::Import{broker, true};
        stream.removal_due.reset();
    } catch (const std::invalid_argument& error) {
        return {kIllFormedGeometry, Titled(name) + " of " + broker + ": " + error.what()};
    } catch (const std::system_error& error) {
        table_.EraseUnused(name);
        return {kNotEnoughMemory, Titled(name) + " of " + broker + ": " + error.what()};
    }
    table_.LogInfo(name, "imported from " + broker);
    table_.Tell(name, PUB_REG);
    return {};
}

void Imports::OnLost(const StreamName& name, const std::string& why) {
    Stream::Import& import = *table_.Find(name)->import;
    if (std::exchange(import.live, false)) {
        table_.LogWarning(name, "import from " + import.broker + " lost: " + why);
        table_.Tell(name, PUB_UNREG);
    }
}

void Imports::OnBack(const StreamName& name) {
    Stream& stream = *table_.Find(name);
    if (!std::exchange(stream.import->live, true)) {
        table_.LogInfo(name, "import from " + stream.import->broker + " is back");
        table_.Tell(name, PUB_REG);
        if (stream.holds_sample()) {
            table_.Tell(name, NEW_DATA);
        }
    }
}

void Imports::End(const StreamName& name) {
    Stream* const stream = table_.Find(name);
    if (stream == nullptr) {
        return;
    }
    assert(stream->import);
    if (std::exchange(stream->import->live, false)) {
        table_.Tell(name, PUB_UNREG);
    }
    stream->import.reset();
    table_.RemoveFile(name, *stream);
    table_.EraseUnused(name);
}

}  // namespace kvo::brokerd
