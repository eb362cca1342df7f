#include "admin/cli/commands/StatelessCommands.h"

#include "admin/cli/show/SessionQuery.h"

constinit const QelString TarnAdminSessRefreshAll::m_cmdFormat(
    QelLiteral("session refresh all_sessions <user-name> -realm <realm-name>"));

std::uint32_t TarnAdminSessRefreshAll::executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                                                  TarnAdminCmdTokens const& tokens) {
    return actOnSessions(SessionSelector::kUser, olm_dsess_admin_refresh_sessions, handle, secInfo, tokens);
}
