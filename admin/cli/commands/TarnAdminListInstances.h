/// instances list: the instances that the configuration defines.
#pragma once

#include "admin/cli/config/TarnAdminConfig.h"
#include "admin/cli/language/TarnAdminCmd.h"
#include "catalogue/QelString.h"

class TarnAdminListInstances : public TarnAdminCmd {
  public:
    /// `config` is not null and must outlive the command.
    explicit TarnAdminListInstances(TarnAdminConfig* config);

    std::uint32_t executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                             TarnAdminCmdTokens const& tokens) override;

  private:
    static const QelString m_cmdFormat;

    TarnAdminConfig* m_config;
};
