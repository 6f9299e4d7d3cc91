#pragma once

#include "kvo/broker/data_broker_registration_sync.h"

#include <memory>
#include <string>
#include <string_view>

namespace kvo::tools {

/// Asks a broker directly, before or beside the library, so that a command can say at once and
/// in words what the library would tell by a code after its long wait.
/// Threads: any.
class BrokerProbe {
public:
    /// Connects and asks, waiting 3 s. Throws CommandFailure: kUsage for a text that names no
    /// broker, kBrokerUnreachable when nobody answers there.
    explicit BrokerProbe(const std::string& broker_uri);

    /// Runs one query; throws CommandFailure when the connection breaks (kBrokerUnreachable) or the
    /// broker answers with an error (kFailure).
    template <class Query>
    auto Ask(Query query) {
        try {
            return query(*client_);
        } catch (...) {
            RethrowAsFailure();
        }
    }

    /// @param remote_broker empty: a publisher of the broker's own host.
    bool HasPublisher(const std::string& stream, const std::string& remote_broker = {});

    const std::string& uri() const { return uri_; }  // as given

private:
    [[noreturn]] void RethrowAsFailure() const;

    const std::string uri_;
    std::unique_ptr<DataBrokerRegistrationSync> client_;
};

/// Why the broker last refused us the stream, with what goes before it in a sentence.
std::string ReasonOf(BrokerProbe& broker, const std::string& stream);

/// Why the broker refused a registration and what helps, in one sentence.
std::string DescribeRefusal(BrokerProbe& broker, const std::string& stream, int code,
                            int max_sample_bytes, int samples);

}  // namespace kvo::tools
