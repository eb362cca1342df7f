/// replica set list: the replica sets of every realm, or of one.
#pragma once

#include "admin/cli/vexiladmin/TarnAdminCmd.h"
#include "runtime/QelString.h"

class TarnAdminReplicaSetList : public TarnAdminCmd {
  public:
    TarnAdminReplicaSetList();

    std::uint32_t executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                             TarnAdminCmdTokens const& tokens) override;

  private:
    static const QelString m_cmdFormat;
};
