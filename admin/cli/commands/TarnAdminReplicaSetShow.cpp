#include "admin/cli/commands/StatelessCommand.h"

#include <cstdio>

#include "admin/cli/show/FetchedRecords.h"
#include "admin/cli/show/RecordText.h"
#include "catalogue/qel_messages.h"
#include "catalogue/qel_msg.h"

/// replica set show: the members of one replica set and when each was last heard from.
class TarnAdminReplicaSetShow : public StatelessCommand<TarnAdminReplicaSetShow> {
    static constexpr std::int32_t kReplicaSet = 3;

  public:
    static constinit inline const QelString m_cmdFormat{QelLiteral("replica set show <replica-set-name>")};

    void execute(const ServerAccess& server, TarnAdminCmdTokens const& words) const override {
        const FetchedRecords<olm_dsess_admin_replica_set_record_t, OLM_DSESS_ADMIN_FREE_REPLICA_SET> members(
            [&](std::int32_t* count, olm_dsess_admin_replica_set_record_t** records) {
                return olm_dsess_admin_get_replica_set_info(server.handle, &server.secInfo, words[kReplicaSet], count,
                                                            records);
            });
        if (members.count() == 0) {
            qel_fprintf(stdout, kMsgNoReplicaSetRecords);
        }
        for (const olm_dsess_admin_replica_set_record_t& member : members.records()) {
            qel_fprintf(stdout, kMsgReplicaSetRecord, RecordText(member.name).data(), TimeText(member.time).data());
        }
        std::fputs("\n", stdout);
    }
};

template std::unique_ptr<TarnAdminCmd> createCommand<TarnAdminReplicaSetShow>();
