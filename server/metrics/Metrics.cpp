#include "server/metrics/Metrics.h"

#include <prometheus/text_serializer.h>

#include <algorithm>
#include <chrono>
#include <utility>

namespace dsessd {

namespace {

using prometheus::ClientMetric;
using prometheus::Counter;
using prometheus::Family;
using prometheus::Gauge;
using prometheus::Histogram;
using prometheus::MetricFamily;
using prometheus::MetricType;
using prometheus::Registry;

Family<Counter>& counters(Registry& registry, const char* name, const char* help) {
    return prometheus::BuildCounter().Name(name).Help(help).Register(registry);
}

Family<Gauge>& gauges(Registry& registry, const char* name, const char* help) {
    return prometheus::BuildGauge().Name(name).Help(help).Register(registry);
}

Counter& counter(Registry& registry, const char* name, const char* help, const prometheus::Labels& labels = {}) {
    return counters(registry, name, help).Add(labels);
}

Gauge& gauge(Registry& registry, const char* name, const char* help) {
    return gauges(registry, name, help).Add({});
}

constexpr char kLogins[] = "dsessd_logins_total";
constexpr char kLoginsHelp[] =
    "Logins whose password was checked (verified), and those that were refused. A login that was verified in the last "
    "minutes is not checked again";
constexpr char kStoreErrors[] = "dsessd_store_errors_total";
constexpr char kStoreErrorsHelp[] =
    "Failures of the store: unavailable (it cannot do it now), uncertain (a change may have been made), replaced (it "
    "holds another cluster), failed (any other)";

// Seconds. A request that is answered at once takes a tenth of a millisecond; none waits for more than 10 s.
const Histogram::BucketBoundaries& boundaries() {
    static const Histogram::BucketBoundaries kBoundaries{0.0001, 0.00025, 0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025,
                                                         0.05,   0.1,     0.25,   0.5,   1,      2.5,   5,    10};
    return kBoundaries;
}

MetricFamily family(const char* name, const char* help, MetricType type = MetricType::Gauge) {
    MetricFamily made;
    made.name = name;
    made.help = help;
    made.type = type;
    return made;
}

ClientMetric sample(std::vector<ClientMetric::Label> labels, double value) {
    ClientMetric made;
    made.label = std::move(labels);
    made.gauge.value = value;
    return made;
}

}  // namespace

Metrics::Metrics(const Log& log)
    : verifiedLogins(counter(m_registry, kLogins, kLoginsHelp, {{"outcome", "verified"}})),
      refusedLogins(counter(m_registry, kLogins, kLoginsHelp, {{"outcome", "refused"}})),
      connections(gauge(m_registry, "dsessd_connections", "Connections of clients that are open")),
      mostConnections(gauge(m_registry, "dsessd_connections_max", "How many connections there may be")),
      acceptedConnections(counter(m_registry, "dsessd_connections_total", "Connections that were accepted")),
      refusedConnections(counter(m_registry, "dsessd_connections_refused_total",
                                 "Connections that were turned away because there were too many")),
      failedHandshakes(counter(m_registry, "dsessd_tls_handshakes_failed_total", "TLS handshakes that failed")),
      storeReconnects(
          counter(m_registry, "dsessd_store_reconnects_total", "Connections to the database that were made anew")),
      m_log(log),
      m_requests(
          counters(m_registry, "dsessd_requests_total",
                   "Requests that were answered, by method and outcome: done, done before (a change that was "
                   "answered from its record), busy or store out of reach (status 503), or the name of an error")),
      m_requestTimes(prometheus::BuildHistogram()
                         .Name("dsessd_request_duration_seconds")
                         .Help("Time from a request's last byte to its answer, waiting included and sending not")
                         .Register(m_registry)),
      m_httpRefusals(counters(m_registry, "dsessd_http_refusals_total",
                              "Messages that were refused before they were a request, by status of HTTP")),
      m_waiting(gauges(m_registry, "dsessd_queue_length", "Steps of requests that wait for a thread of their lane")),
      m_busyThreads(gauges(m_registry, "dsessd_lane_threads_busy", "Threads of a lane that are at work")),
      m_threads(gauges(m_registry, "dsessd_lane_threads", "Threads of a lane")),
      m_storeFailed(counter(m_registry, kStoreErrors, kStoreErrorsHelp, {{"reason", "failed"}})),
      m_storeUnavailable(counter(m_registry, kStoreErrors, kStoreErrorsHelp, {{"reason", "unavailable"}})),
      m_storeReplaced(counter(m_registry, kStoreErrors, kStoreErrorsHelp, {{"reason", "replaced"}})),
      m_storeUncertain(counter(m_registry, kStoreErrors, kStoreErrorsHelp, {{"reason", "uncertain"}})) {}

Counter& Metrics::requests(const std::string& method, const std::string& outcome) {
    return m_requests.Add({{"method", method}, {"outcome", outcome}});
}

Histogram& Metrics::requestTimes(const std::string& method) {
    return m_requestTimes.Add({{"method", method}}, boundaries());
}

Counter& Metrics::httpRefusals(int status) {
    return m_httpRefusals.Add({{"status", std::to_string(status)}});
}

Gauge& Metrics::waiting(const std::string& lane) {
    return m_waiting.Add({{"lane", lane}});
}

Gauge& Metrics::busyThreads(const std::string& lane) {
    return m_busyThreads.Add({{"lane", lane}});
}

Gauge& Metrics::threads(const std::string& lane) {
    return m_threads.Add({{"lane", lane}});
}

void Metrics::count(const Failure& failure) {
    switch (failure.reason()) {
        case Reason::kFailed:
            return m_storeFailed.Increment();
        case Reason::kUnavailable:
            return m_storeUnavailable.Increment();
        case Reason::kReplaced:
            return m_storeReplaced.Increment();
        case Reason::kUncertain:
            return m_storeUncertain.Increment();
        default:
            return;
    }
}

void Metrics::setContacts(std::vector<Contact> contacts) {
    const MutexLock lock(m_mutex);
    m_contacts.swap(contacts);
}

void Metrics::setEndings(std::vector<Ending> endings) {
    const MutexLock lock(m_mutex);
    m_endings.swap(endings);
}

std::string Metrics::text() const {
    using namespace std::chrono;
    const double now = duration<double>(system_clock::now().time_since_epoch()).count();
    std::vector<MetricFamily> families = m_registry.Collect();

    MetricFamily states = family("dsessd_health", "1 for the state that /healthz tells, 0 for the others");
    for (const Health::State state : Health::kStates) {
        states.metric.push_back(sample({{"state", Health::nameOf(state)}}, state == health.state() ? 1 : 0));
    }
    families.push_back(std::move(states));

    MetricFamily dropped =
        family("dsessd_log_lines_dropped_total", "Lines of the log that could not be written", MetricType::Counter);
    dropped.metric.emplace_back().counter.value = static_cast<double>(m_log.dropped());
    families.push_back(std::move(dropped));

    MetricFamily contacts =
        family("dsessd_member_last_contact_age_seconds",
               "Time since a member of a replica set was last there; not shown for more than 1000 members");
    MetricFamily endings = family("dsessd_certificate_remaining_seconds",
                                  "Time until the first certificate or revocation list of a file ends");
    {
        const MutexLock lock(m_mutex);
        for (const Contact& contact : m_contacts) {
            contacts.metric.push_back(sample({{"member", contact.member}, {"replica_set", contact.replicaSet}},
                                             now - static_cast<double>(contact.time)));
        }
        for (const Ending& ending : m_endings) {
            endings.metric.push_back(sample({{"file", ending.file}}, static_cast<double>(ending.time) - now));
        }
    }
    families.push_back(std::move(contacts));
    families.push_back(std::move(endings));
    for (MetricFamily& one : families) {  // for people: the registry has them in no order
        std::sort(one.metric.begin(), one.metric.end(),
                  [](const ClientMetric& left, const ClientMetric& right) { return left.label < right.label; });
    }
    return prometheus::TextSerializer().Serialize(families);
}

}  // namespace dsessd
