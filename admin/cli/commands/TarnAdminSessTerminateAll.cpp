#include "admin/cli/commands/SessionChange.h"

/// session terminate all_sessions: ends every session of a user.
class TarnAdminSessTerminateAll
    : public SessionChange<TarnAdminSessTerminateAll, SessionSelector::kUser, olm_dsess_admin_terminate_sessions> {
  public:
    static constinit inline const QelString m_cmdFormat{
        QelLiteral("session terminate all_sessions <username> -realm <realm-name>")};
};

template std::unique_ptr<TarnAdminCmd> createCommand<TarnAdminSessTerminateAll>();
