#include "admin/cli/commands/StatelessCommand.h"

#include "admin/cli/show/SessionQuery.h"

/// session refresh all_sessions: makes every session of a user fresh.
class TarnAdminSessRefreshAll : public StatelessCommand<TarnAdminSessRefreshAll, TarnAdminCmd::Effect::kChanges> {
    static constexpr std::int32_t kUser = 3;
    static constexpr std::int32_t kRealm = 5;

  public:
    static constinit inline const QelString m_cmdFormat{
        QelLiteral("session refresh all_sessions <user-name> -realm <realm-name>")};

    void execute(const ServerAccess& server, TarnAdminCmdTokens const& words) const override {
        const SessionQuery query(SessionSelector::kUser, words[kRealm], words[kUser]);
        qel_require(olm_dsess_admin_refresh_sessions(server.handle, &server.secInfo, query.record()));
    }
};

template std::unique_ptr<TarnAdminCmd> createCommand<TarnAdminSessRefreshAll>();
