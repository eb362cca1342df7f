/// replica set show: the members of one replica set and when each was last heard from.
#pragma once

#include "admin/cli/vexiladmin/TarnAdminCmd.h"
#include "runtime/QelString.h"

class TarnAdminReplicaSetShow : public TarnAdminCmd {
  public:
    TarnAdminReplicaSetShow();

    std::uint32_t executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                             TarnAdminCmdTokens const& tokens) override;

  private:
    static const QelString m_cmdFormat;
};
