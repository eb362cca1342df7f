#include "admin/cli/vexiladmin/commands/TarnAdminRealmShow.h"

#include "admin/cli/vexiladmin/commands/ClusterInfo.h"

const QelString TarnAdminRealmShow::m_cmdFormat("realm show <realm-name>");

TarnAdminRealmShow::TarnAdminRealmShow() : TarnAdminCmd(m_cmdFormat.data()) {}

std::uint32_t TarnAdminRealmShow::executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                                             TarnAdminCmdTokens const& tokens) {
    return showReplicaSets(handle, secInfo, tokens[2]);
}
