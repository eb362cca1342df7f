#include "admin/cli/commands/StatelessCommands.h"

#include <cstdio>

#include "admin/cli/show/FetchedRecords.h"
#include "admin/cli/show/RecordText.h"
#include "catalogue/qel_messages.h"
#include "catalogue/qel_msg.h"

constinit const QelString TarnAdminReplicaSetShow::m_cmdFormat(QelLiteral("replica set show <replica-set-name>"));

std::uint32_t TarnAdminReplicaSetShow::executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                                                  TarnAdminCmdTokens const& tokens) {
    FetchedRecords<olm_dsess_admin_replica_set_record_t, OLM_DSESS_ADMIN_FREE_REPLICA_SET> members;
    const std::uint32_t status =
        members.fetch([&](std::int32_t* count, olm_dsess_admin_replica_set_record_t** records) {
            return olm_dsess_admin_get_replica_set_info(handle, &secInfo, tokens[3], count, records);
        });
    if (status != 0) {
        return status;
    }
    if (members.count() == 0) {
        qel_fprintf(stdout, kMsgNoReplicaSetRecords);
    }
    for (const olm_dsess_admin_replica_set_record_t& member : members.records()) {
        qel_fprintf(stdout, kMsgReplicaSetRecord, RecordText(member.name).data(), TimeText(member.time).data());
    }
    std::fputs("\n", stdout);
    return 0;
}
