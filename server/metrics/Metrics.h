/// What the server counts of itself for a monitoring system: the one list of all metrics, and their text in the form
/// that Prometheus reads (https://prometheus.io/docs/instrumenting/exposition_formats/), such as
///
///     # HELP dsessd_requests_total Requests that were answered, by method and outcome
///     # TYPE dsessd_requests_total counter
///     dsessd_requests_total{method="cluster.get",outcome="done"} 7
///
/// Labels take few values. None of them is a user's name or comes from a request that nobody vouches for.
#pragma once

#include <prometheus/counter.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "runtime/ThreadAnnotations.h"
#include "server/log/Failure.h"
#include "server/log/Log.h"
#include "server/metrics/Health.h"

namespace dsessd {

/// Safe to use from several threads. To count takes no memory, and no lock but a histogram's for a moment.
class Metrics {
    /// Owns the counters and gauges that the references below refer to. So it is declared first.
    prometheus::Registry m_registry;

  public:
    /// Keeps a reference to the log.
    explicit Metrics(const Log& log);
    Metrics(const Metrics&) = delete;
    Metrics& operator=(const Metrics&) = delete;

    std::string text() const;

    Health health;

    /// These look a counter, histogram or gauge up, or make it, which takes memory: for the start, or for what is rare.
    prometheus::Counter& requests(const std::string& method, const std::string& outcome);
    prometheus::Histogram& requestTimes(const std::string& method);
    prometheus::Counter& httpRefusals(int status);
    /// Of a lane: how many steps wait for its threads, how many of these are at work, and how many there are.
    prometheus::Gauge& waiting(const std::string& lane);
    prometheus::Gauge& busyThreads(const std::string& lane);
    prometheus::Gauge& threads(const std::string& lane);

    prometheus::Counter& verifiedLogins;
    prometheus::Counter& refusedLogins;
    prometheus::Gauge& connections;
    prometheus::Gauge& mostConnections;
    prometheus::Counter& acceptedConnections;
    prometheus::Counter& refusedConnections;
    prometheus::Counter& failedHandshakes;
    prometheus::Counter& storeReconnects;
    /// Counts a failure if it is one of the store.
    void count(const Failure& failure);

    /// The last contacts of the cluster's members, which take the place of those given before.
    struct Contact {
        std::string replicaSet;
        std::string member;
        std::int64_t time;
    };
    void setContacts(std::vector<Contact> contacts);
    /// When the first certificate or revocation list of a file ends.
    struct Ending {
        std::string file;
        std::int64_t time;
    };
    void setEndings(std::vector<Ending> endings);

  private:
    const Log& m_log;
    prometheus::Family<prometheus::Counter>& m_requests;
    prometheus::Family<prometheus::Histogram>& m_requestTimes;
    prometheus::Family<prometheus::Counter>& m_httpRefusals;
    prometheus::Family<prometheus::Gauge>& m_waiting;
    prometheus::Family<prometheus::Gauge>& m_busyThreads;
    prometheus::Family<prometheus::Gauge>& m_threads;
    prometheus::Counter& m_storeFailed;
    prometheus::Counter& m_storeUnavailable;
    prometheus::Counter& m_storeReplaced;
    prometheus::Counter& m_storeUncertain;

    mutable Mutex m_mutex;
    std::vector<Contact> m_contacts GUARDED_BY(m_mutex);
    std::vector<Ending> m_endings GUARDED_BY(m_mutex);
};

}  // namespace dsessd
