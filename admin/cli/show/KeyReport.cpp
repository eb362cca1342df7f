#include "admin/cli/show/KeyReport.h"

#include <cstdio>

#include "admin/cli/show/RecordText.h"
#include "catalogue/qel_messages.h"
#include "catalogue/qel_msg.h"

void printKeyReport(const olm_dsess_admin_cluster_t& cluster) {
    const RecordText label(cluster.key_label);
    const TimeText time(cluster.key_time);
    if (cluster.second_time != 0) {
        qel_fprintf(stdout, kMsgKeyWithPrevious, label.data(), time.data(), TimeText(cluster.second_time).data());
    } else {
        qel_fprintf(stdout, kMsgKey, label.data(), time.data());
    }
    std::fputs("\n", stdout);
}
