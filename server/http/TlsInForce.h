/// The TLS that new connections get: read from its files at the start, and anew at each reload.
#pragma once

#include <chrono>
#include <memory>

#include "runtime/ThreadAnnotations.h"
#include "server/http/Tls.h"
#include "server/log/Log.h"
#include "server/metrics/Metrics.h"

namespace dsessd {

/// The log and the metrics that it is given must outlive it.
class TlsInForce {
  public:
    /// Throws std::runtime_error with one line that names the file at fault.
    TlsInForce(TlsFiles files, Log& log, Metrics& metrics);

    /// Safe to call from any thread, also while another one reloads.
    std::shared_ptr<const TlsContext> get() const;
    /// Reads the files anew. What cannot be read or used leaves the old in force, and the log says so.
    void reload();
    /// To be called every now and then: once a day, the log says what has ended or ends soon.
    void tick();

  private:
    void tellMetrics();

    using Clock = std::chrono::steady_clock;

    const TlsFiles m_files;
    Log& m_log;
    Metrics& m_metrics;
    mutable Mutex m_mutex;
    std::shared_ptr<const TlsContext> m_context GUARDED_BY(m_mutex);
    /// The next time that the log mentions what ends. Used only by the thread that calls tick() and reload().
    Clock::time_point m_sayAgain = Clock::time_point::min();
};

}  // namespace dsessd
