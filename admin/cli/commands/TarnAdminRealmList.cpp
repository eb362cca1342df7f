#include "admin/cli/commands/StatelessCommand.h"

#include <cstdio>

#include "admin/cli/show/ClusterInfo.h"
#include "admin/cli/show/RecordText.h"
#include "catalogue/qel_messages.h"
#include "catalogue/qel_msg.h"
#include "runtime/qel_io.h"

/// realm list: the names of all realms.
class TarnAdminRealmList : public StatelessCommand<TarnAdminRealmList> {
  public:
    static constinit inline const QelString m_cmdFormat{QelLiteral("realm list")};

    void execute(const ServerAccess& server, TarnAdminCmdTokens const& /*words*/) const override {
        const ClusterInfo info(server);
        if (info.realmCount() == 0) {
            qel_fprintf(stdout, kMsgNoRealms);
            std::fputs("\n", stdout);
        }
        QelGatheredOutput out(stdout);
        for (const olm_dsess_admin_realm_t& realm : info.realms()) {
            out.put(RecordText(realm.name).view());
            out.put("\n");
        }
    }
};

template std::unique_ptr<TarnAdminCmd> createCommand<TarnAdminRealmList>();
