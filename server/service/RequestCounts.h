/// What the monitoring system is told of requests: how many were answered, how, and how long they took.
#pragma once

#include <chrono>
#include <string_view>
#include <vector>

#include "server/metrics/Metrics.h"
#include "server/service/Methods.h"

namespace dsessd {

/// Has a counter for each method and outcome, and a histogram of times for each method. All are made at the start, so
/// that counting takes no memory. Safe to use from several threads.
class RequestCounts {
  public:
    /// The metrics must outlive it.
    explicit RequestCounts(Metrics& metrics);
    /// `method` null: there is no such method. `outcome`: Answer::outcome.
    void add(const Method* method, std::string_view outcome, std::chrono::duration<double> took);

  private:
    struct OfMethod {
        /// In the order of outcomes().
        std::vector<prometheus::Counter*> answered;
        prometheus::Histogram* times;
    };
    static OfMethod make(Metrics& metrics, const char* method);

    /// In the order of allMethods(); the last is for what is none of them.
    std::vector<OfMethod> m_methods;
};

}  // namespace dsessd
