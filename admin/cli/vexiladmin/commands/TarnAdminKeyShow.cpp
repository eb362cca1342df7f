#include "admin/cli/vexiladmin/commands/TarnAdminKeyShow.h"

#include "admin/cli/vexiladmin/commands/ClusterInfo.h"
#include "admin/cli/vexiladmin/commands/KeyReport.h"

const QelString TarnAdminKeyShow::m_cmdFormat("key show");

TarnAdminKeyShow::TarnAdminKeyShow() : TarnAdminCmd(m_cmdFormat.data()) {}

std::uint32_t TarnAdminKeyShow::executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                                           TarnAdminCmdTokens const& /*tokens*/) {
    ClusterInfo info;
    if (const std::uint32_t status = info.fetch(handle, secInfo); status != 0) {
        return status;
    }
    printKeyReport(info.cluster());
    return 0;
}
