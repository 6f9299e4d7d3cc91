#pragma once

#include "gorm/cor/service_loop.h"
#include "kvo/brokerd/federation_engine.h"
#include "kvo/os/thread_bound.h"
#include "remote/remote_brokers.h"
#include "remote/remote_streams.h"
#include "remote/transfer_disposer.h"
#include "streams/stream_files.h"
#include "streams/topics.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kvo {
class KvoLogger;
}

namespace kvo::brokerd {

/// The broker's work with brokers of other hosts: imports and exports, the engine that moves their
/// samples, the requests to the others. The engine is loaded when it is first needed.
/// Threads: the loop.
class Federation {
public:
    struct Settings {
        std::string name;  // of this broker for others: HOST:PORT
        FederationOptions engine;
        std::vector<std::string> exported;  // patterns of streams that are always exported
        std::string topic_directory;        // of the local topics; empty: there are none
        // Instead of the module, for a program that brings its own. Null: the module.
        std::function<std::unique_ptr<FederationEngine>(const FederationOptions&)> load;
    };
    Federation(Settings settings, gorm::cor::ServiceLoop& loop, StreamRegistry& registry,
               const StreamFiles& files, const SupervisedTime& time, Topics& topics,
               KvoLogger* logger);
    Federation(const Federation&) = delete;
    Federation& operator=(const Federation&) = delete;
    /// May take some seconds.
    ~Federation();

    RemoteStreams& streams() { return *streams_; }
    void Tick();

private:
    FederationEngine& Engine();
    std::unique_ptr<RemoteTransfer> StartImport(const RemoteStreams::ImportOrder& order);
    std::unique_ptr<RemoteTransfer> StartExport(const RemoteStreams::ExportOrder& order);
    RemoteStreams::Calls Calls();
    /// For other threads: runs the function on the loop, unless this object is destroyed by then.
    template <class Function>
    void PostIfAlive(Function function);

    const Settings settings_;
    gorm::cor::ServiceLoop& loop_;
    const StreamFiles& files_;
    Topics& topics_;
    KvoLogger* const logger_;
    os::ThreadBound thread_;
    const std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
    std::unique_ptr<FederationEngine> engine_;    // null: not needed yet
    std::unique_ptr<TransferDisposer> disposer_;  // null: likewise
    RemoteBrokers brokers_;
    std::unique_ptr<RemoteStreams> streams_;
};

}  // namespace kvo::brokerd
