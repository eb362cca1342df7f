#include "admin/cli/commands/StatelessCommands.h"

#include "admin/cli/show/ClusterInfo.h"

constinit const QelString TarnAdminRealmShow::m_cmdFormat(QelLiteral("realm show <realm-name>"));

std::uint32_t TarnAdminRealmShow::executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                                             TarnAdminCmdTokens const& tokens) {
    return showReplicaSets(handle, secInfo, tokens[2]);
}
