/// session list: the sessions of a realm whose user matches a pattern, at most so many (0: all).
#pragma once

#include "admin/cli/vexiladmin/TarnAdminCmd.h"
#include "runtime/QelString.h"

class TarnAdminSessList : public TarnAdminCmd {
  public:
    TarnAdminSessList();

    std::uint32_t executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                             TarnAdminCmdTokens const& tokens) override;

  private:
    static const QelString m_cmdFormat;
};
