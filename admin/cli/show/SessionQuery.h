/// The query that every session command sends.
#pragma once

#include "admin/client-interface/olm_dsess_admin.h"

/// What the value of a query is compared with.
enum class SessionSelector { kUser, kSession };

class SessionQuery {
  public:
    /// Sessions of `realm`, selected by `value`. Both texts must outlive the query. Throws QelFailure with
    /// kStatusNoCommand when the catalogue lacks the selector's texts.
    SessionQuery(SessionSelector selector, const char* realm, const char* value);
    SessionQuery(const SessionQuery&) = delete;
    SessionQuery& operator=(const SessionQuery&) = delete;

    const olm_dsess_admin_session_query_t* record() const { return &m_query; }

  private:
    char* m_values[2];  // the one value, and the null that ends the list
    olm_dsess_admin_session_query_t m_query;
};
