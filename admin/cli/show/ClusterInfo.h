/// The cluster information, as the commands that read it fetch, walk and release it.
#pragma once

#include <cstdint>
#include <span>

#include "admin/client-interface/olm_dsess_admin.h"

/// Releases what a filled cluster record points to.
class ClusterRelease {
  public:
    explicit ClusterRelease(olm_dsess_admin_cluster_t& cluster) : m_cluster(cluster) {}
    ClusterRelease(const ClusterRelease&) = delete;
    ClusterRelease& operator=(const ClusterRelease&) = delete;
    ~ClusterRelease();

  private:
    olm_dsess_admin_cluster_t& m_cluster;
};

/// The realms and the cluster record of one command; what the library gave is released, realms first, with the object.
class ClusterInfo {
  public:
    ClusterInfo() = default;
    ClusterInfo(const ClusterInfo&) = delete;
    ClusterInfo& operator=(const ClusterInfo&) = delete;
    ~ClusterInfo();

    /// Returns 0, the library's status, or kStatusAnswerNotUnderstood for records of which an array is missing. After a
    /// failure nothing may be read. Call once.
    [[nodiscard]] std::uint32_t fetch(void* handle, olm_dsess_admin_sec_info_t const& secInfo);

    /// As the library counted them: 0 or less means none.
    std::int32_t realmCount() const { return m_realmCount; }
    std::span<const olm_dsess_admin_realm_t> realms() const;
    const olm_dsess_admin_cluster_t& cluster() const { return m_cluster; }

  private:
    /// Whether every array that has a count is there.
    bool isWhole() const;

    bool m_fetched = false;
    std::int32_t m_realmCount = 0;
    olm_dsess_admin_realm_t* m_realms = nullptr;
    olm_dsess_admin_cluster_t m_cluster{};
};

/// Prints the names of a realm's replica sets, indented, one a line.
void printReplicaSets(const olm_dsess_admin_realm_t& realm);

/// Prints the replica sets of every realm that has exactly this name, or says that there is none. Returns 0 or the
/// status of the fetch.
[[nodiscard]] std::uint32_t showReplicaSets(void* handle, olm_dsess_admin_sec_info_t const& secInfo,
                                            const char* realmName);
