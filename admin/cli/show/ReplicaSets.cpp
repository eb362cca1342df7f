#include "admin/cli/show/ReplicaSets.h"

#include <cstdio>
#include <cstring>

#include "admin/cli/show/ClusterInfo.h"
#include "admin/cli/show/RecordText.h"
#include "catalogue/qel_messages.h"
#include "catalogue/qel_msg.h"
#include "runtime/qel_io.h"

void printReplicaSets(const olm_dsess_admin_realm_t& realm) {
    QelGatheredOutput out(stdout);
    for (std::int32_t i = 0; i < realm.replica_set_count; ++i) {
        out.put("    ");
        out.put(RecordText(realm.replica_set_names[i]).view());
        out.put("\n");
    }
}

void showRealm(const ServerAccess& server, const char* name) {
    bool isFound = false;
    const ClusterInfo info(server);
    for (const olm_dsess_admin_realm_t& realm : info.realms()) {
        if (realm.name != nullptr && std::strcmp(realm.name, name) == 0) {
            isFound = true;
            printReplicaSets(realm);
        }
    }
    if (!isFound) {
        qel_fprintf(stdout, kMsgUnknownRealm);
        std::fputs("\n", stdout);
    }
}
