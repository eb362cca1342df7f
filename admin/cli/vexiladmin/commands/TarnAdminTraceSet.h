/// trace set: sets the server's trace level; the server decides which levels are valid.
#pragma once

#include "admin/cli/vexiladmin/TarnAdminCmd.h"
#include "runtime/QelString.h"

class TarnAdminTraceSet : public TarnAdminCmd {
  public:
    TarnAdminTraceSet();

    std::uint32_t executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                             TarnAdminCmdTokens const& tokens) override;

  private:
    static const QelString m_cmdFormat;
};
