#include "admin/cli/commands/StatelessCommand.h"

#include "admin/cli/show/ReplicaSets.h"

/// realm show: the replica sets of one realm.
class TarnAdminRealmShow : public StatelessCommand<TarnAdminRealmShow> {
    static constexpr std::int32_t kRealm = 2;

  public:
    static constinit inline const QelString m_cmdFormat{QelLiteral("realm show <realm-name>")};

    void execute(const ServerAccess& server, TarnAdminCmdTokens const& words) const override {
        showRealm(server, words[kRealm]);
    }
};

template std::unique_ptr<TarnAdminCmd> createCommand<TarnAdminRealmShow>();
