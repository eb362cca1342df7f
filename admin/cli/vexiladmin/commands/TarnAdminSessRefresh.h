/// session refresh session: makes one session fresh.
#pragma once

#include "admin/cli/vexiladmin/TarnAdminCmd.h"
#include "runtime/QelString.h"

class TarnAdminSessRefresh : public TarnAdminCmd {
  public:
    TarnAdminSessRefresh();

    std::uint32_t executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                             TarnAdminCmdTokens const& tokens) override;

  private:
    static const QelString m_cmdFormat;
};
