/// Any bytes as a cluster to load: it is stored as counted, or nothing is changed.

#include <sstream>

#include "Require.h"
#include "server/Loader.h"

using namespace dsessd;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const auto store = Store::open(scratchFolder() + "/cluster.db", Store::IfMissing::kCreate);
    std::istringstream input(std::string(reinterpret_cast<const char*>(data), size));
    const ClusterState before = store->cluster();
    try {
        LoadCounts left = loadCluster(input, *store, 1700000000, [](const auto&...) {});
        for (const Realm& realm : store->cluster().realms) {
            --left.realms;
            left.replicaSets -= static_cast<std::int64_t>(realm.replicaSets.size());
            left.sessions -= store->listSessions(realm.name, Selector::kUser, "*", -1)->total();
            for (const std::string& name : realm.replicaSets) {
                left.members -= static_cast<std::int64_t>(store->members(name)->size());
            }
        }
        REQUIRE(left.realms == 0 && left.replicaSets == 0 && left.sessions == 0 && left.members == 0);
    } catch (const LoadError& error) {
        REQUIRE(error.line() > 0 && *error.what() != '\0');
        const ClusterState after = store->cluster();
        REQUIRE(after.key.label == before.key.label && after.realms.size() == before.realms.size());
    }
    return 0;
}
