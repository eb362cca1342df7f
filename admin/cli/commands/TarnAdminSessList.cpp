#include "admin/cli/commands/StatelessCommands.h"

#include <cstdio>

#include "admin/cli/shell/TarnAdminInterrupt.h"
#include "admin/cli/show/FetchedRecords.h"
#include "admin/cli/show/RecordText.h"
#include "admin/cli/show/SessionQuery.h"
#include "catalogue/qel_messages.h"
#include "catalogue/qel_msg.h"
#include "catalogue/qel_strtol.h"

namespace {

constexpr std::int32_t kNoLimit = -1;

using Sessions = FetchedRecords<olm_dsess_admin_session_t, OLM_DSESS_ADMIN_FREE_SESSIONS>;

std::uint32_t printSessions(const Sessions& sessions, std::int32_t total) {
    qel_fprintf(stdout, kMsgSessionsHeading, total, sessions.count());
    std::fputs("\n", stdout);
    QelMessageLines lines(stdout, kMsgSession);
    TimeText time;
    for (const olm_dsess_admin_session_t& session : sessions.records()) {
        if (TarnAdminInterrupt::came()) {
            return kStatusInterrupted;
        }
        time.set(session.time);
        lines.write({RecordText(session.second_text).view(), time.view(), RecordText(session.first_text).view()});
    }
    if (sessions.count() == 0) {
        qel_fprintf(stdout, kMsgNoSessions);
        std::fputs("\n", stdout);
    }
    return 0;
}

}  // namespace

constinit const QelString TarnAdminSessList::m_cmdFormat(
    QelLiteral("session list -realm <realm-name> <pattern> <max>"));

std::uint32_t TarnAdminSessList::executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                                            TarnAdminCmdTokens const& tokens) {
    SessionQuery query(tokens[3], tokens[4]);
    if (const std::uint32_t status = query.select(SessionSelector::kUser); status != 0) {
        return status;
    }
    std::int32_t max = 0;
    if (qel_strtol(tokens[5], 10, &max) != 0 || max < 0) {
        return refuseValue("max");
    }
    Sessions sessions;
    std::int32_t total = 0;
    const std::uint32_t status = sessions.fetch([&](std::int32_t* count, olm_dsess_admin_session_t** records) {
        return olm_dsess_admin_list_sessions(handle, &secInfo, query.record(), max == 0 ? kNoLimit : max, &total, count,
                                             records);
    });
    return status == 0 ? printSessions(sessions, total) : status;
}
