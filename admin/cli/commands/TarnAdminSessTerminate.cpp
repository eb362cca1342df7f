#include "admin/cli/commands/SessionChange.h"

/// session terminate session: ends one session.
class TarnAdminSessTerminate
    : public SessionChange<TarnAdminSessTerminate, SessionSelector::kSession, olm_dsess_admin_terminate_sessions> {
  public:
    static constinit inline const QelString m_cmdFormat{
        QelLiteral("session terminate session <session-id> -realm <realm-name>")};
};

template std::unique_ptr<TarnAdminCmd> createCommand<TarnAdminSessTerminate>();
