#include "admin/cli/vexiladmin/records/RecordText.h"

#include <cstdio>

#include "runtime/qel_messages.h"
#include "runtime/qel_msg.h"

QelString recordText(const char* text) {
    QelString shown(text, QelString::kForDisplay);
    if (shown.view().ends_with('\n')) {
        QelString escaped(shown.view().substr(0, shown.length() - 1));
        escaped.append("\\x0A");
        return escaped;
    }
    return shown;
}

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

std::uint32_t refuseValue(const char* name) {
    std::fflush(stdout);
    qel_fprintf(stderr, kMsgInvalidValue, name);
    std::fputs("\n", stderr);
    return kStatusInvalidValue;
}
