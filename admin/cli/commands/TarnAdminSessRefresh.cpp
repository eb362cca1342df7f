#include "admin/cli/commands/StatelessCommands.h"

#include "admin/cli/show/SessionQuery.h"

constinit const QelString TarnAdminSessRefresh::m_cmdFormat(
    QelLiteral("session refresh session <session-id> -realm <realm-name>"));

std::uint32_t TarnAdminSessRefresh::executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                                               TarnAdminCmdTokens const& tokens) {
    return actOnSessions(SessionSelector::kSession, olm_dsess_admin_refresh_sessions, handle, secInfo, tokens);
}
