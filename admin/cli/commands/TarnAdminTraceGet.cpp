#include "admin/cli/commands/StatelessCommands.h"

#include <cstdio>

#include "catalogue/qel_messages.h"
#include "catalogue/qel_msg.h"

constinit const QelString TarnAdminTraceGet::m_cmdFormat(QelLiteral("trace get"));

std::uint32_t TarnAdminTraceGet::executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                                            TarnAdminCmdTokens const& /*tokens*/) {
    std::int32_t level = 0;
    if (const std::uint32_t status = olm_dsess_admin_get_trace_level(handle, &secInfo, &level); status != 0) {
        return status;
    }
    qel_fprintf(stdout, kMsgTraceLevel, level);
    std::fputs("\n", stdout);
    return 0;
}
