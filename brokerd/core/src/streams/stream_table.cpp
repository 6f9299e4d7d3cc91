#include "streams/stream_table.h"

#include "streams/stream_name.h"

#include <utility>

namespace kvo::brokerd {

StreamTable::StreamTable(const RegistrySettings& settings, StreamFiles& files,
                         const Processes& processes, const SupervisedTime& time, Notify notify,
                         Log log)
    : settings_(settings),
      files_(files),
      processes_(processes),
      time_(time),
      notify_(std::move(notify)),
      log_(std::move(log)) {}

Stream* StreamTable::Find(const StreamName& name) {
    thread_.here();
    const auto found = streams_.find(name);
    return found == streams_.end() ? nullptr : &found->second;
}

const Stream* StreamTable::Find(const StreamName& name) const {
    thread_.here();
    const auto found = streams_.find(name);
    return found == streams_.end() ? nullptr : &found->second;
}

Stream& StreamTable::FindOrAdd(const StreamName& name) {
    thread_.here();
    return streams_[name];
}

void StreamTable::EraseUnused(const StreamName& name) {
    const auto found = streams_.find(name);
    if (found != streams_.end() && found->second.unused()) {
        streams_.erase(found);
    }
}

void StreamTable::EraseUnused() {
    std::erase_if(streams_, [](const auto& entry) { return entry.second.unused(); });
}

bool StreamTable::HasLivingWriter(const Stream& stream) const {
    return stream.file != nullptr && !stream.file->writer_state().retired &&
           files_.WriterLives(*stream.file);
}

void StreamTable::RemoveFile(const StreamName& name, Stream& stream) {
    stream.removal_due.reset();
    files_.Remove(std::move(stream.file));
    LogInfo(name, "file removed");
    Tell(name, SHM_DEL);
}

Client::State StreamTable::Judge(Client& client) const {
    return client.Judge(processes_, time_.Now(), settings_.heartbeat_timeout);
}

void StreamTable::LogInfo(const StreamName& stream, const std::string& text) const {
    log_(2, Titled(stream) + ": " + text);
}

void StreamTable::LogWarning(const StreamName& stream, const std::string& text) const {
    log_(3, Titled(stream) + ": " + text);
}

void StreamTable::LogStalled(const StreamName& stream, const std::string& role, bool before,
                             const Client& client) const {
    if (client.stalled() && !before) {
        LogWarning(stream,
                   role + " is stalled: no heartbeat and no connection, but its process lives");
    } else if (before && !client.stalled()) {
        LogInfo(stream, role + " answers again");
    }
}

}  // namespace kvo::brokerd
