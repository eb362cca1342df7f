#include "admin/cli/commands/StatelessCommands.h"

#include "admin/cli/show/SessionQuery.h"

constinit const QelString TarnAdminSessTerminate::m_cmdFormat(
    QelLiteral("session terminate session <session-id> -realm <realm-name>"));

std::uint32_t TarnAdminSessTerminate::executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                                                 TarnAdminCmdTokens const& tokens) {
    return actOnSessions(SessionSelector::kSession, olm_dsess_admin_terminate_sessions, handle, secInfo, tokens);
}
