#include "admin/cli/commands/TarnAdminListInstances.h"

#include <cstdio>

#include "admin/cli/show/RecordText.h"

constinit const QelString TarnAdminListInstances::m_cmdFormat(QelLiteral("instances list"));

TarnAdminListInstances::TarnAdminListInstances(TarnAdminConfig* config)
    : TarnAdminCmd(m_cmdFormat.data()), m_config(config) {}

std::uint32_t TarnAdminListInstances::executeCmd(void* const& /*handle*/, olm_dsess_admin_sec_info_t const& /*secInfo*/,
                                                 TarnAdminCmdTokens const& /*tokens*/) {
    m_config->instanceTable().forEachKey(
        [](const QelString& instance) { std::printf("%s\n", RecordText(instance.data()).data()); });
    return 0;
}
