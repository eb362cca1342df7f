#include "admin/cli/commands/SessionChange.h"

/// session refresh all_sessions: makes every session of a user fresh.
class TarnAdminSessRefreshAll
    : public SessionChange<TarnAdminSessRefreshAll, SessionSelector::kUser, olm_dsess_admin_refresh_sessions> {
  public:
    static constinit inline const QelString m_cmdFormat{
        QelLiteral("session refresh all_sessions <user-name> -realm <realm-name>")};
};

template std::unique_ptr<TarnAdminCmd> createCommand<TarnAdminSessRefreshAll>();
