#include "admin/cli/commands/SessionChange.h"

/// session refresh session: makes one session fresh.
class TarnAdminSessRefresh
    : public SessionChange<TarnAdminSessRefresh, SessionSelector::kSession, olm_dsess_admin_refresh_sessions> {
  public:
    static constinit inline const QelString m_cmdFormat{
        QelLiteral("session refresh session <session-id> -realm <realm-name>")};
};

template std::unique_ptr<TarnAdminCmd> createCommand<TarnAdminSessRefresh>();
