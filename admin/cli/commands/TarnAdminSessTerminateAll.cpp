#include "admin/cli/commands/StatelessCommands.h"

#include "admin/cli/show/SessionQuery.h"

constinit const QelString TarnAdminSessTerminateAll::m_cmdFormat(
    QelLiteral("session terminate all_sessions <username> -realm <realm-name>"));

std::uint32_t TarnAdminSessTerminateAll::executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                                                    TarnAdminCmdTokens const& tokens) {
    return actOnSessions(SessionSelector::kUser, olm_dsess_admin_terminate_sessions, handle, secInfo, tokens);
}
