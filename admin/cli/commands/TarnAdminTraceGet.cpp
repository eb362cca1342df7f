#include "admin/cli/commands/StatelessCommand.h"

#include <cstdio>

#include "catalogue/qel_messages.h"
#include "catalogue/qel_msg.h"

/// trace get: shows the server's trace level.
class TarnAdminTraceGet : public StatelessCommand<TarnAdminTraceGet> {
  public:
    static constinit inline const QelString m_cmdFormat{QelLiteral("trace get")};

    void execute(const ServerAccess& server, TarnAdminCmdTokens const& /*words*/) const override {
        std::int32_t level = 0;
        qel_require(olm_dsess_admin_get_trace_level(server.handle, &server.secInfo, &level));
        qel_fprintf(stdout, kMsgTraceLevel, level);
        std::fputs("\n", stdout);
    }
};

template std::unique_ptr<TarnAdminCmd> createCommand<TarnAdminTraceGet>();
