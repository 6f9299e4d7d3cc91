#pragma once

#include "streams/publishers.h"
#include "streams/stream_table.h"
#include "streams/subscribers.h"

namespace kvo::brokerd {

/// What is looked after from time to time: clients that have died or fallen silent, files whose
/// time is up, entries of dead readers.
/// Threads: one.
class Sweep {
public:
    Sweep(StreamTable& table, Publishers& publishers, Subscribers& subscribers)
        : table_(table), publishers_(publishers), subscribers_(subscribers) {}

    /// Judges every client: to be called often, and at once when a connection was lost.
    void Run();
    /// Reclaims the entries of dead readers, in some streams at each call.
    void ReclaimReaders();

private:
    void RunOn(const StreamName& name, Stream& stream);

    StreamTable& table_;
    Publishers& publishers_;
    Subscribers& subscribers_;
    StreamName last_reclaimed_;
};

}  // namespace kvo::brokerd
