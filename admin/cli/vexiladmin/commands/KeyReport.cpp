#include "admin/cli/vexiladmin/commands/KeyReport.h"

#include <cstdio>

#include "admin/cli/vexiladmin/commands/RecordText.h"
#include "admin/cli/vexiladmin/commands/TimeText.h"
#include "runtime/qel_messages.h"
#include "runtime/qel_msg.h"

void printKeyReport(const olm_dsess_admin_cluster_t& cluster) {
    const QelString label = recordText(cluster.key_label);
    const TimeText time(cluster.key_time);
    if (cluster.second_time != 0) {
        qel_fprintf(stdout, kMsgKeyWithPrevious, label.data(), time.data(), TimeText(cluster.second_time).data());
    } else {
        qel_fprintf(stdout, kMsgKey, label.data(), time.data());
    }
    std::fputs("\n", stdout);
}
