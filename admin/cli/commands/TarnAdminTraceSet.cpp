#include "admin/cli/commands/StatelessCommands.h"

#include "admin/cli/show/RecordText.h"
#include "catalogue/qel_strtol.h"

constinit const QelString TarnAdminTraceSet::m_cmdFormat(QelLiteral("trace set <level>"));

std::uint32_t TarnAdminTraceSet::executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                                            TarnAdminCmdTokens const& tokens) {
    std::int32_t level = 0;
    if (qel_strtol(tokens[2], 10, &level) != 0) {
        return refuseValue("level");
    }
    return olm_dsess_admin_set_trace_level(handle, &secInfo, level);
}
