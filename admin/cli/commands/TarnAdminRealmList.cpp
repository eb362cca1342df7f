#include "admin/cli/commands/StatelessCommands.h"

#include <cstdio>

#include "admin/cli/show/ClusterInfo.h"
#include "admin/cli/show/RecordText.h"
#include "catalogue/qel_messages.h"
#include "catalogue/qel_msg.h"
#include "runtime/qel_io.h"

constinit const QelString TarnAdminRealmList::m_cmdFormat(QelLiteral("realm list"));

std::uint32_t TarnAdminRealmList::executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                                             TarnAdminCmdTokens const& /*tokens*/) {
    ClusterInfo info;
    if (const std::uint32_t status = info.fetch(handle, secInfo); status != 0) {
        return status;
    }
    if (info.realmCount() == 0) {
        qel_fprintf(stdout, kMsgNoRealms);
        std::fputs("\n", stdout);
    }
    QelGatheredOutput out(stdout);
    for (const olm_dsess_admin_realm_t& realm : info.realms()) {
        out.put(RecordText(realm.name).view());
        out.put("\n");
    }
    return 0;
}
