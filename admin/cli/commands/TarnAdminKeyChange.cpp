#include "admin/cli/commands/StatelessCommand.h"

#include <new>

#include "admin/cli/show/ClusterInfo.h"
#include "admin/cli/show/KeyReport.h"
#include "catalogue/qel_messages.h"

/// key change: makes the cluster generate a new key, at once, and shows it.
class TarnAdminKeyChange : public StatelessCommand<TarnAdminKeyChange, TarnAdminCmd::Effect::kChanges> {
  public:
    static constinit inline const QelString m_cmdFormat{QelLiteral("key change")};

    void execute(const ServerAccess& server, TarnAdminCmdTokens const& /*words*/) const override {
        olm_dsess_admin_cluster_t cluster{};
        qel_require(olm_dsess_admin_generate_new_key(server.handle, &server.secInfo, &cluster));
        const ClusterRelease release(cluster);
        try {
            printKeyReport(cluster);
        } catch (const std::bad_alloc&) {
            throw QelFailure(kStatusOutcomeUnknown);  // the key has been changed: nothing may invite to do it again
        }
    }
};

template std::unique_ptr<TarnAdminCmd> createCommand<TarnAdminKeyChange>();
