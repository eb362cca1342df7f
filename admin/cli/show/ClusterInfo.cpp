#include "admin/cli/show/ClusterInfo.h"

#include <algorithm>

#include "catalogue/QelFailure.h"
#include "catalogue/qel_messages.h"

ClusterRelease::~ClusterRelease() {
    const olm_dsess_admin_free_info_t release{OLM_DSESS_ADMIN_FREE_CLUSTER, 1, &m_cluster};
    olm_dsess_admin_free(&release);
}

ClusterInfo::ClusterInfo(const ServerAccess& server) : ClusterInfo(server.handle, server.secInfo) {
    qel_require(isWhole() ? 0 : kStatusAnswerNotUnderstood);
    if (m_names != nullptr) {
        keepNames(*m_names);
    }
}

ClusterInfo::ClusterInfo(void* handle, const olm_dsess_admin_sec_info_t& secInfo) {
    qel_require(olm_dsess_admin_get_cluster_info(handle, &secInfo, &m_realmCount, &m_realms, &m_cluster));
}

ClusterInfo::~ClusterInfo() {
    const ClusterRelease last(m_cluster);
    const olm_dsess_admin_free_info_t release{OLM_DSESS_ADMIN_FREE_REALMS, m_realmCount, &m_realms};
    olm_dsess_admin_free(&release);
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

void ClusterInfo::keepNames(ClusterNames& names) const {
    constexpr std::size_t kMost = 1000;  // of a kind; who has more types a beginning
    const auto add = [](std::vector<std::string>& list, const char* name) {
        if (name != nullptr && list.size() < kMost) {
            list.emplace_back(name);
        }
    };
    names = {};
    for (const olm_dsess_admin_realm_t& realm : realms()) {
        add(names.realms, realm.name);
        for (std::int32_t i = 0; i < realm.replica_set_count; ++i) {
            add(names.replicaSets, realm.replica_set_names[i]);
        }
    }
}

std::span<const olm_dsess_admin_realm_t> ClusterInfo::realms() const {
    return {m_realms, static_cast<std::size_t>(std::max(m_realmCount, 0))};
}
