#include "admin/cli/commands/StatelessCommand.h"

#include "admin/cli/show/SessionQuery.h"

/// session terminate all_sessions: ends every session of a user.
class TarnAdminSessTerminateAll : public StatelessCommand<TarnAdminSessTerminateAll, TarnAdminCmd::Effect::kChanges> {
    static constexpr std::int32_t kUser = 3;
    static constexpr std::int32_t kRealm = 5;

  public:
    static constinit inline const QelString m_cmdFormat{
        QelLiteral("session terminate all_sessions <username> -realm <realm-name>")};

    void execute(const ServerAccess& server, TarnAdminCmdTokens const& words) const override {
        const SessionQuery query(SessionSelector::kUser, words[kRealm], words[kUser]);
        qel_require(olm_dsess_admin_terminate_sessions(server.handle, &server.secInfo, query.record()));
    }
};

template std::unique_ptr<TarnAdminCmd> createCommand<TarnAdminSessTerminateAll>();
