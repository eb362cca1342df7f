#include "server/Loader.h"

#include <gmock/gmock.h>

#include "tests/server/Support.h"

using namespace dsessd;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

/// `LINE: WHY` when the text is refused.
std::string problemWith(Store& store, const std::string& json) {
    std::istringstream input(json);
    try {
        loadCluster(input, store, 1000, nullptr);
    } catch (const LoadError& error) {
        return std::to_string(error.line()) + ": " + error.what();
    }
    return "none";
}

std::string realmWith(const std::string& fields) {
    return "{\"realms\":[{\"name\":\"r\"," + fields + "}]}";
}

}  // namespace

TEST(Loader, StoresWhatTheFileSays) {
    const DataFile file;
    const auto store = file.open();
    std::istringstream input(kSmallCluster);
    const LoadCounts counts = loadCluster(input, *store, 1000, nullptr);
    EXPECT_EQ(counts.realms + counts.replicaSets * 10 + counts.members * 100 + counts.sessions * 1000, 4222);
    const ClusterState cluster = store->cluster();
    ASSERT_EQ(cluster.realms.size(), 2U);
    EXPECT_EQ(cluster.realms[0].name, "east");
    EXPECT_THAT(cluster.realms[0].replicaSets, ElementsAre("web", "db"));
    EXPECT_EQ(cluster.key.label, "new");
    EXPECT_EQ(cluster.key.previousTime, 100);
    EXPECT_EQ(store->members("web")->at(1).lastContact, 12);
    EXPECT_TRUE(store->members("db")->empty());
    EXPECT_EQ(store->members("east"), std::nullopt);
}

TEST(Loader, TakesFieldsInAnyOrderAndAgesFromNow) {
    const DataFile file;
    const auto store = file.open();
    EXPECT_EQ(problemWith(*store, R"({"realms":[{"sessions":[{"age":10,"user":"u","id":"s"}],"replicaSets":[{"members":
        [{"age":1000,"name":"m"}],"name":"set"}],"name":"east"}]})"),
              "none");
    SessionRow row;
    ASSERT_TRUE(store->listSessions("east", Selector::kUser, "u", 1)->next(row));
    EXPECT_EQ(row.time, 990);
    EXPECT_EQ(store->members("set")->at(0).lastContact, 0);
}

TEST(Loader, NamesTheLineOfAMistakeAndChangesNothing) {
    const DataFile file;
    file.load(kSmallCluster);
    const auto store = file.open();
    const std::string before = store->cluster().key.label;
    const struct {
        std::string json;
        const char* problem;
    } cases[] = {
        {"", "1: The document is empty"},
        {"[]", "1: the cluster is not an object"},
        {"{}", "1: the cluster without the field \"realms\""},
        {"{\n\"realms\": [\n{\"nmae\": 1}]}", "3: a realm has no field \"nmae\""},
        {"{\"realms\": [1]}", "1: something other than an object in the field \"realms\" of the cluster"},
        {"{\"realms\": {}}", "1: an object where there should be none"},
        {"{\"realms\": [[]]}", "1: something other than an object"},
        {"{\"realms\": [{}]}", "1: a realm without the field \"name\""},
        {"{\"realms\": [{\"name\": \"a\"},\n {\"name\": \"a\"}]}", "2: a realm \"a\" comes twice"},
        {"{\"realms\": [{\"name\": \"a\",\n\"name\": \"b\"}]}", "2: the field \"name\" of a realm comes twice"},
        {"{\"realms\": [{\"name\": \"\"}]}", "1: the field \"name\" of a realm is empty"},
        {"{\"realms\": [{\"name\": \"\xff\"}]}", "1: the field \"name\" of a realm is empty, longer"},
        {"{\"realms\": [{\"name\": \"\\udc00\"}]}", "1: the field \"name\" of a realm is empty, longer"},
        {"{\"realms\": [{\"name\": \"a\\u0000b\"}]}", "1: the field \"name\" of a realm is empty, longer"},
        {"{\"realms\": [{\"name\": \"" + std::string(1025, 'x') + "\"}]}", "longer than 1024 bytes"},
        {"{\"realms\": [{\"name\": 5}]}", "1: the field \"name\" of a realm is of the wrong type"},
        {realmWith("\"sessions\": [{\"id\":\"s\",\"user\":\"u\"}]"), "needs one of the fields \"time\" and \"age\""},
        {realmWith("\"sessions\": [{\"id\":\"s\",\"user\":\"u\",\"time\":1,\"age\":1}]"), "needs one of the fields"},
        {realmWith("\"sessions\": [{\"id\":\"s\",\"user\":\"u\",\"time\":2147483648}]"), "is not between 0 and"},
        {realmWith("\"sessions\": [{\"id\":\"s\",\"user\":\"u\",\"time\":-1}]"), "is not between 0 and"},
        {realmWith("\"sessions\": [{\"id\":\"s\",\"user\":\"u\",\"age\":1001}]"), "is not between 0 and"},
        {realmWith("\"sessions\": [{\"id\":\"s\",\"user\":\"u\",\"time\":1.5}]"), "neither text nor a whole number"},
        {realmWith("\"sessions\": [{\"id\":\"s\",\"user\":\"u\",\"time\":18446744073709551615}]"), "too large"},
        {realmWith(
             "\"sessions\": [{\"id\":\"s\",\"user\":\"u\",\"time\":1},\n{\"id\":\"s\",\"user\":\"v\",\"time\":1}]"),
         "2: a session \"s\" comes twice"},
        {realmWith("\"replicaSets\": [{\"name\":\"s\"},{\"name\":\"s\"}]"), "a replica set \"s\" comes twice"},
        {"{\"realms\": [],\n\"realms\": []}", "2: the field \"realms\" of the cluster comes twice"},
        {"{\"realms\": []}\n}", "2: The document root must not be followed by other values"},
        {std::string("{\"realms\": []}\0x", 16), "1: a NUL byte"},
        {"{\"realms\": [{\"name\": \"a\"}", "1: Missing a comma or ']'"},
        {"{\"realms\": " + std::string(100000, '['), "1: something other than an object"},
    };
    for (const auto& c : cases) {
        EXPECT_THAT(problemWith(*store, c.json), HasSubstr(c.problem)) << c.json.substr(0, 200);
    }
    EXPECT_EQ(store->cluster().key.label, before);
    EXPECT_THAT(idsOf(*store, "*"), ElementsAre("s1", "s2", "s4", "s3"));
}

TEST(Loader, ReadsAcrossItsBuffersAndReportsProgress) {
    const DataFile file;
    const auto store = file.open();
    std::string json = "{\"realms\":[{\"name\":\"east\",\"sessions\":[";
    for (int i = 0; i < 10000; ++i) {
        json +=
            (i == 0 ? "" : ",\n") + std::string("{\"id\":\"") + std::to_string(i) + "\",\"user\":\"李伟\",\"time\":1}";
    }
    json += "]}]}";
    std::istringstream input(json);
    std::uint64_t reported = 0;
    loadCluster(input, *store, 0, [&](std::uint64_t bytes, const LoadCounts& counts) {
        EXPECT_LE(bytes, json.size());
        EXPECT_GT(bytes, reported);
        EXPECT_GT(counts.sessions, 0);
        reported = bytes;
    });
    EXPECT_GT(reported, 0U);
    EXPECT_EQ(idsOf(*store, "李*").size(), 10000U);
}
