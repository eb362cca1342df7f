#include "admin/cli/show/ClusterInfo.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "admin/cli/show/RecordText.h"
#include "catalogue/qel_messages.h"
#include "catalogue/qel_msg.h"
#include "runtime/qel_io.h"

ClusterRelease::~ClusterRelease() {
    const olm_dsess_admin_free_info_t release{OLM_DSESS_ADMIN_FREE_CLUSTER, 1, &m_cluster};
    olm_dsess_admin_free(&release);
}

ClusterInfo::~ClusterInfo() {
    if (!m_fetched) {
        return;
    }
    const ClusterRelease last(m_cluster);
    const olm_dsess_admin_free_info_t release{OLM_DSESS_ADMIN_FREE_REALMS, m_realmCount, &m_realms};
    olm_dsess_admin_free(&release);
}

std::uint32_t ClusterInfo::fetch(void* handle, olm_dsess_admin_sec_info_t const& secInfo) {
    const std::uint32_t status =
        olm_dsess_admin_get_cluster_info(handle, &secInfo, &m_realmCount, &m_realms, &m_cluster);
    m_fetched = status == 0;
    return status == 0 && !isWhole() ? kStatusAnswerNotUnderstood : status;
}

bool ClusterInfo::isWhole() const {
    if (m_realms == nullptr) {
        return m_realmCount <= 0;
    }
    const auto all = realms();
    return std::all_of(all.begin(), all.end(), [](const olm_dsess_admin_realm_t& realm) {
        return realm.replica_set_count <= 0 || realm.replica_set_names != nullptr;
    });
}

std::span<const olm_dsess_admin_realm_t> ClusterInfo::realms() const {
    if (!m_fetched || m_realmCount <= 0) {
        return {};
    }
    return {m_realms, static_cast<std::size_t>(m_realmCount)};
}

void printReplicaSets(const olm_dsess_admin_realm_t& realm) {
    QelGatheredOutput out(stdout);
    for (std::int32_t i = 0; i < realm.replica_set_count; ++i) {
        out.put("    ");
        out.put(RecordText(realm.replica_set_names[i]).view());
        out.put("\n");
    }
}

std::uint32_t showReplicaSets(void* handle, olm_dsess_admin_sec_info_t const& secInfo, const char* realmName) {
    ClusterInfo info;
    if (const std::uint32_t status = info.fetch(handle, secInfo); status != 0) {
        return status;
    }
    bool found = false;
    for (const olm_dsess_admin_realm_t& realm : info.realms()) {
        if (realm.name != nullptr && std::strcmp(realm.name, realmName) == 0) {
            found = true;
            printReplicaSets(realm);
        }
    }
    if (!found) {
        qel_fprintf(stdout, kMsgUnknownRealm);
        std::fputs("\n", stdout);
    }
    return 0;
}
