#include "admin/cli/commands/StatelessCommands.h"

#include <new>

#include "admin/cli/show/ClusterInfo.h"
#include "admin/cli/show/RecordText.h"
#include "catalogue/qel_messages.h"

constinit const QelString TarnAdminKeyChange::m_cmdFormat(QelLiteral("key change"));

std::uint32_t TarnAdminKeyChange::executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                                             TarnAdminCmdTokens const& /*tokens*/) {
    olm_dsess_admin_cluster_t cluster{};
    if (const std::uint32_t status = olm_dsess_admin_generate_new_key(handle, &secInfo, &cluster); status != 0) {
        return status;
    }
    const ClusterRelease release(cluster);
    try {
        printKeyReport(cluster);
        return 0;
    } catch (const std::bad_alloc&) {
        return kStatusOutcomeUnknown;  // the key has been changed: nothing may invite to do it again
    }
}
