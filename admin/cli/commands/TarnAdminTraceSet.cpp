#include "admin/cli/commands/StatelessCommand.h"

#include <limits>

#include "admin/cli/language/Values.h"

/// trace set: sets the server's trace level. The server decides which levels are valid.
class TarnAdminTraceSet : public StatelessCommand<TarnAdminTraceSet, TarnAdminCmd::Effect::kChanges> {
    static constexpr std::int32_t kLevel = 2;

  public:
    static constinit inline const QelString m_cmdFormat{QelLiteral("trace set <level>")};

    void execute(const ServerAccess& server, TarnAdminCmdTokens const& words) const override {
        const std::int32_t level = readNumber(words[kLevel], "level", std::numeric_limits<std::int32_t>::min());
        qel_require(olm_dsess_admin_set_trace_level(server.handle, &server.secInfo, level));
    }
};

template std::unique_ptr<TarnAdminCmd> createCommand<TarnAdminTraceSet>();
