#include "server/http/TlsInForce.h"

#include <algorithm>
#include <exception>
#include <map>
#include <utility>

#include "runtime/QelTimeText.h"
#include "server/log/Text.h"

namespace dsessd {

TlsInForce::TlsInForce(TlsFiles files, Log& log, Metrics& metrics)
    : m_files(std::move(files)), m_log(log), m_metrics(metrics), m_context(std::make_shared<TlsContext>(m_files)) {
    tellMetrics();
}

void TlsInForce::tellMetrics() {
    std::map<std::string, std::time_t> first;
    for (const TlsContext::Ending& ending : get()->endings()) {
        const auto [known, isNew] = first.emplace(ending.file, ending.time);
        known->second = std::min(known->second, ending.time);
    }
    std::vector<Metrics::Ending> endings;
    endings.reserve(first.size());
    for (const auto& [file, time] : first) {
        endings.push_back({harmless(file, 1024), time});
    }
    m_metrics.setEndings(std::move(endings));
}

std::shared_ptr<const TlsContext> TlsInForce::get() const {
    const MutexLock lock(m_mutex);
    return m_context;
}

void TlsInForce::reload() {
    try {
        auto context = std::make_shared<const TlsContext>(m_files);
        {
            const MutexLock lock(m_mutex);
            m_context.swap(context);
        }
        tellMetrics();
        m_log.write(Topic::kNotice, "the certificates were read anew; new connections use them");
        m_sayAgain = Clock::time_point::min();
        tick();
    } catch (const std::exception& error) {
        m_log.failed("the certificates stay as they were", error);
    }
}

void TlsInForce::tick() {
    if (Clock::now() < m_sayAgain) {
        return;
    }
    m_sayAgain = Clock::now() + std::chrono::days(1);
    const std::time_t now = std::time(nullptr);
    for (const TlsContext::Ending& ending : get()->endings()) {
        if (now >= ending.warnFrom) {
            m_log.write(Topic::kFailure, harmless(ending.what, 1024) +
                                             (now >= ending.time ? " ended on " : " ends on ") +
                                             QelTimeText(ending.time, "%F %T UTC").data());
        }
    }
}

}  // namespace dsessd
