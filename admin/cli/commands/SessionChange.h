/// The commands `session <verb> <what> <value> -realm <realm>`.
#pragma once

#include "admin/cli/commands/StatelessCommand.h"
#include "admin/cli/show/SessionQuery.h"

/// The base of these commands: hands a query to `operation`, which is olm_dsess_admin_terminate_sessions or
/// olm_dsess_admin_refresh_sessions.
template <class Command, SessionSelector selector, auto operation>
class SessionChange : public StatelessCommand<Command, TarnAdminCmd::Effect::kChanges> {
    static constexpr std::int32_t kValue = 3;
    static constexpr std::int32_t kRealm = 5;

    void execute(const ServerAccess& server, TarnAdminCmdTokens const& words) const override {
        const SessionQuery query(selector, words[kRealm], words[kValue]);
        qel_require(operation(server.handle, &server.secInfo, query.record()));
    }
};
