#include "admin/cli/commands/StatelessCommands.h"

#include <cstdio>

#include "admin/cli/show/ClusterInfo.h"
#include "admin/cli/show/RecordText.h"

constinit const QelString TarnAdminReplicaSetList::m_cmdFormat(QelLiteral("replica set list [-realm <realm>]"));

std::uint32_t TarnAdminReplicaSetList::executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                                                  TarnAdminCmdTokens const& tokens) {
    if (tokens.tokens() == 5) {
        return showReplicaSets(handle, secInfo, tokens[4]);
    }
    ClusterInfo info;
    if (const std::uint32_t status = info.fetch(handle, secInfo); status != 0) {
        return status;
    }
    for (const olm_dsess_admin_realm_t& realm : info.realms()) {
        std::printf("%s:\n", RecordText(realm.name).data());
        printReplicaSets(realm);
    }
    return 0;
}
