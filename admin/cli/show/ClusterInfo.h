/// The cluster information, as the commands that read it fetch, walk and release it.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "admin/cli/show/ServerAccess.h"
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

/// Names that a server gave, in UTF-8.
struct ClusterNames {
    std::vector<std::string> realms;
    std::vector<std::string> replicaSets;
};

/// The realms and the cluster record of one command. What the library gave is released, realms first, with the object.
class ClusterInfo {
  public:
    /// Fetches them. Throws QelFailure with the library's status, or with kStatusAnswerNotUnderstood for records of
    /// which an array is missing.
    explicit ClusterInfo(const ServerAccess& server);
    ClusterInfo(const ClusterInfo&) = delete;
    ClusterInfo& operator=(const ClusterInfo&) = delete;
    ~ClusterInfo();

    /// As the library counted them: 0 or less means none.
    std::int32_t realmCount() const { return m_realmCount; }
    std::span<const olm_dsess_admin_realm_t> realms() const;
    const olm_dsess_admin_cluster_t& cluster() const { return m_cluster; }

    /// Has each later fetch put the names that it brings, up to a limit, into `names` in place of those before. Null:
    /// no names are kept.
    static void keepNamesIn(ClusterNames* names) { m_names = names; }

  private:
    /// Fetches the records, and does not check them. The destructor releases them. A constructor that throws has
    /// fetched none.
    ClusterInfo(void* handle, const olm_dsess_admin_sec_info_t& secInfo);
    /// Whether every array that has a count is there.
    bool isWhole() const;
    void keepNames(ClusterNames& names) const;

    static inline ClusterNames* m_names = nullptr;

    std::int32_t m_realmCount = 0;
    olm_dsess_admin_realm_t* m_realms = nullptr;
    olm_dsess_admin_cluster_t m_cluster{};
};
