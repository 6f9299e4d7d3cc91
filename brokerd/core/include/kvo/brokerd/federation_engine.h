#pragma once

#include "kvo/memory/sample_view.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

// What moves samples between hosts, as the broker sees it. The broker and the module that
// implements it belong to one build: kFederationAbi says so when the module is loaded.
namespace kvo::brokerd {

struct RemoteTopic {
    std::string name;
    std::uint32_t history = 1;    // samples that a late reader still gets
    std::int32_t deadline_s = 0;  // what the writer offers; 0 and below: none
    std::uint32_t max_payload_bytes = 0;
};

/// The sending end of a topic. Threads: one.
class RemoteWriter {
public:
    virtual ~RemoteWriter() = default;
    /// @return false: dropped after a second of back-pressure by readers.
    [[nodiscard]] virtual bool Write(const SampleView& sample) = 0;
};

/// The receiving end of one topic and of another like it. Threads: one, but for Wake().
class RemoteReader {
public:
    using Receiver = std::function<void(const SampleView&)>;
    virtual ~RemoteReader() = default;
    /// Waits at most so long for samples or a change of writers and hands each sample to the
    /// receiver, which must not keep the bytes.
    virtual void Take(std::chrono::milliseconds at_most, const Receiver& receiver) = 0;
    virtual void Wake() = 0;
    virtual bool has_writer() const = 0;
};

/// Threads: any; ends after what it has made.
class FederationEngine {
public:
    virtual ~FederationEngine() = default;
    /// Both throw std::runtime_error saying what is in the way.
    virtual std::unique_ptr<RemoteWriter> MakeWriter(const RemoteTopic& topic) = 0;
    /// @param own another topic that it reads as well, of samples for it alone.
    virtual std::unique_ptr<RemoteReader> MakeReader(const RemoteTopic& topic,
                                                     const std::string& own) = 0;
};

/// How the broker reaches others; see docs/configuration.md.
struct FederationOptions {
    std::string module;  // empty: the one that was installed with the broker
    std::uint32_t domain = 0;
    std::vector<std::string> interfaces;  // names or addresses; empty: the engine chooses
    std::vector<std::string> peers;       // hosts asked directly; empty: multicast finds them
    // DDS security: all of these or none. Files, as the engine's plugins take them.
    std::string identity_ca;
    std::string identity_certificate;
    std::string private_key;
    std::string permissions_ca;
    std::string governance;
    std::string permissions;
};

inline constexpr int kFederationAbi = 3;
inline constexpr const char* kFederationModule = "libkvo-federation-dds.so";

/// The module's one function, under this name. Throws std::runtime_error.
inline constexpr const char* kMakeFederationEngine = "kvo_make_federation_engine";
using MakeFederationEngine = FederationEngine* (*)(int abi, const FederationOptions& options);

}  // namespace kvo::brokerd
