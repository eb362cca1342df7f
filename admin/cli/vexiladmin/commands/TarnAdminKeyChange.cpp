#include "admin/cli/vexiladmin/commands/StatelessCommands.h"

#include "admin/cli/vexiladmin/records/ClusterInfo.h"
#include "admin/cli/vexiladmin/records/RecordText.h"

const QelString TarnAdminKeyChange::m_cmdFormat("key change");

std::uint32_t TarnAdminKeyChange::executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                                             TarnAdminCmdTokens const& /*tokens*/) {
    olm_dsess_admin_cluster_t cluster{};
    if (const std::uint32_t status = olm_dsess_admin_generate_new_key(handle, &secInfo, &cluster); status != 0) {
        return status;
    }
    const ClusterRelease release(cluster);
    printKeyReport(cluster);
    return 0;
}
