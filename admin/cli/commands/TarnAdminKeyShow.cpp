#include "admin/cli/commands/StatelessCommand.h"

#include "admin/cli/show/ClusterInfo.h"
#include "admin/cli/show/KeyReport.h"

/// key show: the cluster's key.
class TarnAdminKeyShow : public StatelessCommand<TarnAdminKeyShow> {
  public:
    static constinit inline const QelString m_cmdFormat{QelLiteral("key show")};

    void execute(const ServerAccess& server, TarnAdminCmdTokens const& /*words*/) const override {
        printKeyReport(ClusterInfo(server).cluster());
    }
};

template std::unique_ptr<TarnAdminCmd> createCommand<TarnAdminKeyShow>();
