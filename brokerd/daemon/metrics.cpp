#include "metrics.h"

#include <algorithm>
#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>
#include <utility>
#include <vector>

namespace kvo::brokerd {
namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

class Families {
public:
    void Add(const char* name, const char* help, MetricType type, double value) {
        families_.push_back(Family(name, help, type, {Metric(type, value, {})}));
    }
    // One value a stream.
    template <class Value>
    void Add(const char* name, const char* help, MetricType type,
             const std::vector<StreamState>& streams, Value value) {
        std::vector<ClientMetric> metrics;
        for (const StreamState& stream : streams) {
            metrics.push_back(Metric(type, static_cast<double>(value(stream)),
                                     {ClientMetric::Label{"stream", stream.name}}));
        }
        families_.push_back(Family(name, help, type, std::move(metrics)));
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
    static MetricFamily Family(const char* name, const char* help, MetricType type,
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
    return families.Text();
}

}  // namespace kvo::brokerd
