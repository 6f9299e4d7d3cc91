#include "metrics.h"

#include "kvo/broker/remote_stream_state.h"

#include <algorithm>
#include <map>
#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>
#include <utility>
#include <vector>

namespace kvo::brokerd {
namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

const std::string& NameOf(const StreamState& stream) {
    return stream.name;
}

const std::string& NameOf(const RemoteStreamState& stream) {
    return stream.stream;
}

// Each stream of one direction once: an export to several brokers has a state for each of them,
// with the numbers of the one export in all.
std::vector<RemoteStreamState> OneWay(const std::vector<RemoteStreamState>& states, bool import) {
    std::map<std::string, RemoteStreamState> streams;
    for (const RemoteStreamState& state : states) {
        if (state.import == import) {
            streams.emplace(state.stream, state);
        }
    }
    std::vector<RemoteStreamState> once;
    for (auto& [name, state] : streams) {
        once.push_back(std::move(state));
    }
    return once;
}

class Families {
public:
    void Add(const char* name, const char* help, MetricType type, double value) {
        families_.push_back(Family(name, help, type, {Metric(type, value, {})}));
    }
    // One value a stream.
    template <class Stream, class Value>
    void Add(const std::string& name, const std::string& help, MetricType type,
             const std::vector<Stream>& streams, Value value) {
        std::vector<ClientMetric> metrics;
        for (const Stream& stream : streams) {
            metrics.push_back(Metric(type, static_cast<double>(value(stream)),
                                     {ClientMetric::Label{"stream", NameOf(stream)}}));
        }
        families_.push_back(Family(name, help, type, std::move(metrics)));
    }
    // What both directions have. @param way "from" or "to" other brokers.
    void AddTransfers(const std::string& prefix, const std::string& way,
                      const std::vector<RemoteStreamState>& streams) {
        Add(prefix + "_live", "1 while the stream goes " + way + " other brokers",
            MetricType::Gauge, streams, [](const RemoteStreamState& s) { return s.live ? 1 : 0; });
        Add(prefix + "_samples_total", "Samples " + way + " other brokers", MetricType::Counter,
            streams, [](const RemoteStreamState& s) { return s.samples; });
        Add(prefix + "_payload_bytes_total", "Payload of these", MetricType::Counter, streams,
            [](const RemoteStreamState& s) { return s.payload_bytes; });
    }

    // One value for each stream and cause.
    void AddLosses(const char* name, const char* help, bool import,
                   const std::vector<RemoteStreamState>& streams) {
        std::vector<ClientMetric> metrics;
        for (const RemoteStreamState& stream : streams) {
            for (const TransferLoss& loss : kTransferLosses) {
                if (loss.import == import) {
                    metrics.push_back(Metric(MetricType::Counter,
                                             static_cast<double>(stream.*loss.count),
                                             {ClientMetric::Label{"stream", stream.stream},
                                              ClientMetric::Label{"cause", loss.name}}));
                }
            }
        }
        families_.push_back(Family(name, help, MetricType::Counter, std::move(metrics)));
    }
    std::string Text() const { return prometheus::TextSerializer().Serialize(families_); }

private:
    static ClientMetric Metric(MetricType type, double value,
                               std::vector<ClientMetric::Label> labels) {
        ClientMetric metric;
        metric.label = std::move(labels);
        (type == MetricType::Counter ? metric.counter.value : metric.gauge.value) = value;
        return metric;
    }
    static MetricFamily Family(const std::string& name, const std::string& help, MetricType type,
                               std::vector<ClientMetric> metrics) {
        MetricFamily family;
        family.name = name;
        family.help = help;
        family.type = type;
        family.metric = std::move(metrics);
        return family;
    }
    std::vector<MetricFamily> families_;
};

}  // namespace

std::string MetricsOf(const BrokerState& state) {
    constexpr auto kGauge = MetricType::Gauge;
    constexpr auto kCounter = MetricType::Counter;
    const auto count = [](auto number) { return static_cast<double>(number); };
    const auto stalled = std::count_if(state.clients.begin(), state.clients.end(),
                                       [](const ClientState& client) { return client.stalled; });
    Families families;
    families.Add("kvo_broker_uptime_seconds", "Time since the start", kGauge,
                 count(state.uptime_s));
    families.Add("kvo_broker_draining", "1 while the broker is being drained", kGauge,
                 state.draining ? 1 : 0);
    families.Add("kvo_broker_connections", "Connections that have sent a request", kGauge,
                 count(state.connections));
    families.Add("kvo_broker_requests_total", "Requests answered", kCounter, count(state.requests));
    families.Add("kvo_broker_throttled_total", "Requests refused by a limit", kCounter,
                 count(state.throttled));
    families.Add("kvo_broker_refusals_total", "Registrations refused", kCounter,
                 count(state.refusals));
    families.Add("kvo_broker_notifications_total", "Notifications published", kCounter,
                 count(state.notifications));
    families.Add("kvo_broker_memory_used_bytes", "Shared memory of stream files", kGauge,
                 count(state.memory_used_bytes));
    families.Add("kvo_broker_memory_budget_bytes", "Most shared memory of stream files", kGauge,
                 count(state.memory_budget_bytes));
    families.Add("kvo_broker_streams", "Streams known", kGauge, count(state.streams.size()));
    families.Add("kvo_broker_clients", "Publishers and subscribers registered", kGauge,
                 count(state.clients.size()));
    families.Add("kvo_broker_stalled_clients", "Of these: silent, but their process lives", kGauge,
                 count(stalled));
    families.Add("kvo_stream_published", "1 while the stream has a publisher", kGauge,
                 state.streams, [](const StreamState& s) { return s.published ? 1 : 0; });
    families.Add("kvo_stream_subscribers", "Subscribers of the stream", kGauge, state.streams,
                 [](const StreamState& s) { return s.subscribers; });
    families.Add("kvo_stream_samples_total", "Samples written in the present segment", kCounter,
                 state.streams, [](const StreamState& s) { return s.samples; });
    families.Add("kvo_stream_payload_bytes_total", "Payload written in the present segment",
                 kCounter, state.streams, [](const StreamState& s) { return s.payload_bytes; });
    families.Add("kvo_stream_dropped_total", "Samples dropped at the writer", kCounter,
                 state.streams, [](const StreamState& s) { return s.dropped; });
    families.Add("kvo_stream_file_bytes", "Shared memory of the stream", kGauge, state.streams,
                 [](const StreamState& s) { return s.file_bytes; });
    const auto imports = OneWay(state.remote_streams, true);
    families.AddTransfers("kvo_import", "from", imports);
    families.AddLosses("kvo_import_lost_total", "Samples of another broker that are missing here",
                       true, imports);
    families.Add("kvo_import_deadlines_missed_total", "Times that no sample came in time", kCounter,
                 imports, [](const RemoteStreamState& s) { return s.deadlines_missed; });
    const auto exports = OneWay(state.remote_streams, false);
    families.AddTransfers("kvo_export", "to", exports);
    families.AddLosses("kvo_export_lost_total", "Samples that were not sent", false, exports);
    return families.Text();
}

}  // namespace kvo::brokerd
