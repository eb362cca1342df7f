#include "admin/cli/commands/StatelessCommands.h"

#include "admin/cli/show/ClusterInfo.h"
#include "admin/cli/show/RecordText.h"

constinit const QelString TarnAdminKeyShow::m_cmdFormat(QelLiteral("key show"));

std::uint32_t TarnAdminKeyShow::executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                                           TarnAdminCmdTokens const& /*tokens*/) {
    ClusterInfo info;
    if (const std::uint32_t status = info.fetch(handle, secInfo); status != 0) {
        return status;
    }
    printKeyReport(info.cluster());
    return 0;
}
