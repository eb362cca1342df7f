/// The query that every session command sends, and the family of commands that act on what it selects.
#pragma once

#include <cstdint>

#include "admin/cli/language/TarnAdminCmdTokens.h"
#include "admin/client-interface/olm_dsess_admin.h"

/// What the value of a query is compared with.
enum class SessionSelector { kUser, kSession };

class SessionQuery {
  public:
    /// Sessions of `realm`, selected by `value`. Both texts must outlive the query.
    SessionQuery(const char* realm, const char* value);
    SessionQuery(const SessionQuery&) = delete;
    SessionQuery& operator=(const SessionQuery&) = delete;

    /// Returns 0, or kStatusNoCommand when the catalogue lacks the selector's texts.
    [[nodiscard]] std::uint32_t select(SessionSelector selector);
    const olm_dsess_admin_session_query_t* record() const { return &m_query; }

  private:
    char* m_values[2];  // the one value, and the null that ends the list
    olm_dsess_admin_session_query_t m_query;
};

/// olm_dsess_admin_terminate_sessions or olm_dsess_admin_refresh_sessions.
using SessionOperation = std::uint32_t (*)(void* handle, const olm_dsess_admin_sec_info_t* secInfo,
                                           const olm_dsess_admin_session_query_t* query);

/// Runs `session <verb> <what> <value> -realm <realm>`: hands the query to the operation and returns its status.
[[nodiscard]] std::uint32_t actOnSessions(SessionSelector selector, SessionOperation operation, void* handle,
                                          olm_dsess_admin_sec_info_t const& secInfo, TarnAdminCmdTokens const& tokens);
