#pragma once

#include "streams/publishers.h"
#include "streams/stream_table.h"
#include "streams/subscribers.h"

namespace kvo::brokerd {

/// What no request brings about: the end of clients that have died or fallen silent, of files after
/// their grace period, of the entries of dead readers.
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
