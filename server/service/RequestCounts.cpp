#include "server/service/RequestCounts.h"

#include <algorithm>
#include <cassert>

#include "server/service/Answer.h"

namespace dsessd {

RequestCounts::OfMethod RequestCounts::make(Metrics& metrics, const char* method) {
    OfMethod made{{}, &metrics.requestTimes(method)};
    for (const char* outcome : outcomes()) {
        made.answered.push_back(&metrics.requests(method, outcome));
    }
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
    counts.answered.at(found - outcomes().begin())->Increment();
}

}  // namespace dsessd
