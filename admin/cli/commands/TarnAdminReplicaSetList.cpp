#include "admin/cli/commands/StatelessCommand.h"

#include <cstdio>

#include "admin/cli/show/ClusterInfo.h"
#include "admin/cli/show/RecordText.h"
#include "admin/cli/show/ReplicaSets.h"

/// replica set list: the replica sets of every realm, or of one.
class TarnAdminReplicaSetList : public StatelessCommand<TarnAdminReplicaSetList> {
    static constexpr std::int32_t kRealm = 4;

  public:
    static constinit inline const QelString m_cmdFormat{QelLiteral("replica set list [-realm <realm>]")};

    void execute(const ServerAccess& server, TarnAdminCmdTokens const& words) const override {
        if (words[kRealm] != nullptr) {
            return showRealm(server, words[kRealm]);
        }
        const ClusterInfo info(server);
        for (const olm_dsess_admin_realm_t& realm : info.realms()) {
            std::printf("%s:\n", RecordText(realm.name).data());
            printReplicaSets(realm);
        }
    }
};

template std::unique_ptr<TarnAdminCmd> createCommand<TarnAdminReplicaSetList>();
