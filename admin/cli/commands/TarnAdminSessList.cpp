#include "admin/cli/commands/StatelessCommand.h"

#include <cstdio>

#include "admin/cli/language/Values.h"
#include "admin/cli/shell/TarnAdminInterrupt.h"
#include "admin/cli/show/FetchedRecords.h"
#include "admin/cli/show/RecordText.h"
#include "admin/cli/show/SessionQuery.h"
#include "catalogue/qel_messages.h"
#include "catalogue/qel_msg.h"

namespace {

constexpr std::int32_t kNoLimit = -1;

using Sessions = FetchedRecords<olm_dsess_admin_session_t, OLM_DSESS_ADMIN_FREE_SESSIONS>;

/// Throws QelFailure with kStatusInterrupted when Ctrl-C comes meanwhile.
void printSessions(const Sessions& sessions, std::int32_t total) {
    qel_fprintf(stdout, kMsgSessionsHeading, total, sessions.count());
    std::fputs("\n", stdout);
    QelMessageLines lines(stdout, kMsgSession);
    TimeText time;
    for (const olm_dsess_admin_session_t& session : sessions.records()) {
        qel_require(TarnAdminInterrupt::came() ? kStatusInterrupted : 0);
        time.set(session.time);
        lines.write({RecordText(session.second_text).view(), time.view(), RecordText(session.first_text).view()});
    }
    if (sessions.count() == 0) {
        qel_fprintf(stdout, kMsgNoSessions);
        std::fputs("\n", stdout);
    }
}

}  // namespace

/// session list: the sessions of a realm whose user matches a pattern, at most so many (0: all).
class TarnAdminSessList : public StatelessCommand<TarnAdminSessList> {
    static constexpr std::int32_t kRealm = 3;
    static constexpr std::int32_t kPattern = 4;
    static constexpr std::int32_t kMax = 5;

  public:
    static constinit inline const QelString m_cmdFormat{QelLiteral("session list -realm <realm-name> <pattern> <max>")};

    void execute(const ServerAccess& server, TarnAdminCmdTokens const& words) const override {
        const SessionQuery query(SessionSelector::kUser, words[kRealm], words[kPattern]);
        const std::int32_t max = readNumber(words[kMax], "max", 0);
        std::int32_t total = 0;
        const Sessions sessions([&](std::int32_t* count, olm_dsess_admin_session_t** records) {
            return olm_dsess_admin_list_sessions(server.handle, &server.secInfo, query.record(),
                                                 max == 0 ? kNoLimit : max, &total, count, records);
        });
        printSessions(sessions, total);
    }
};

template std::unique_ptr<TarnAdminCmd> createCommand<TarnAdminSessList>();
