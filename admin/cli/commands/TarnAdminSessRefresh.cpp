#include "admin/cli/commands/StatelessCommand.h"

#include "admin/cli/show/SessionQuery.h"

/// session refresh session: makes one session fresh.
class TarnAdminSessRefresh : public StatelessCommand<TarnAdminSessRefresh, TarnAdminCmd::Effect::kChanges> {
    static constexpr std::int32_t kSessionId = 3;
    static constexpr std::int32_t kRealm = 5;

  public:
    static constinit inline const QelString m_cmdFormat{
        QelLiteral("session refresh session <session-id> -realm <realm-name>")};

    void execute(const ServerAccess& server, TarnAdminCmdTokens const& words) const override {
        const SessionQuery query(SessionSelector::kSession, words[kRealm], words[kSessionId]);
        qel_require(olm_dsess_admin_refresh_sessions(server.handle, &server.secInfo, query.record()));
    }
};

template std::unique_ptr<TarnAdminCmd> createCommand<TarnAdminSessRefresh>();
