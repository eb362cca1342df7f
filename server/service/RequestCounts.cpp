#include "server/service/RequestCounts.h"

#include <algorithm>
#include <cassert>

#include "protocol/protocol.h"

namespace dsessd {

const std::array<const char*, RequestCounts::kOutcomes>& RequestCounts::outcomes() {
    namespace error = protocol::error;
    static constexpr std::array<const char*, kOutcomes> kNames{
        "done",
        "done before",
        "busy",
        error::kIdentityRefused,
        error::kNotPermitted,
        error::kUnknownRealm,
        error::kUnknownReplicaSet,
        error::kNoMatchingSession,
        error::kInvalidValue,
        error::kInvalidRequest,
        error::kServerFailure,
        error::kOtherCluster,
        error::kOtherChange,
    };
    return kNames;
}

RequestCounts::OfMethod RequestCounts::make(Metrics& metrics, const char* method) {
    OfMethod made{{}, &metrics.requestTimes(method)};
    std::transform(outcomes().begin(), outcomes().end(), made.answered.begin(),
                   [&](const char* outcome) { return &metrics.requests(method, outcome); });
    return made;
}

RequestCounts::RequestCounts(Metrics& metrics) {
    for (const Method& method : allMethods()) {
        m_methods.push_back(make(metrics, method.name));
    }
    m_methods.push_back(make(metrics, "unknown"));
}

void RequestCounts::add(const Method* method, std::string_view outcome, std::chrono::duration<double> took) {
    const OfMethod& counts = method == nullptr ? m_methods.back() : m_methods[method - allMethods().data()];
    counts.times->Observe(took.count());
    const auto found = std::find(outcomes().begin(), outcomes().end(), outcome);
    assert(found != outcomes().end());
    counts.answered[found - outcomes().begin()]->Increment();
}

}  // namespace dsessd
