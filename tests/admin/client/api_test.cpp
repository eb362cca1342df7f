// The thirteen functions: what they take, give and release.
#include <gtest/gtest.h>

#include <array>
#include <memory>

#include "runtime/qel_messages.h"
#include "tests/admin/client/FaultServers.h"
#include "tests/admin/client/Library.h"

namespace {

constexpr olm_dsess_admin_ssl_info_t kNoTls{};

TEST(Api, EveryOperationDeliversWhatTheServerSays) {
    FaultServers servers({"good"});
    Library library(servers.urls());

    std::int32_t count = 0;
    olm_dsess_admin_realm_t* realms = nullptr;
    olm_dsess_admin_cluster_t cluster{};
    ASSERT_EQ(olm_dsess_admin_get_cluster_info(library.handle, &kRoot, &count, &realms, &cluster), 0U);
    ASSERT_EQ(count, 2);
    EXPECT_STREQ(realms[0].name, "east");
    ASSERT_EQ(realms[0].replica_set_count, 2);
    EXPECT_STREQ(realms[0].replica_set_names[0], "alpha");
    EXPECT_STREQ(realms[0].replica_set_names[1], "beta");
    EXPECT_STREQ(realms[1].name, "west");
    EXPECT_EQ(realms[1].replica_set_count, 0);
    release(OLM_DSESS_ADMIN_FREE_SESSIONS, count, &realms);  // not its kind
    ASSERT_NE(realms, nullptr);
    release(OLM_DSESS_ADMIN_FREE_REALMS, count, &realms);
    EXPECT_EQ(realms, nullptr);
    // The key outlives the realms.
    EXPECT_STREQ(cluster.key_label, "key-1");
    EXPECT_EQ(cluster.key_time, 1700000000);
    EXPECT_EQ(cluster.second_time, 0);
    release(OLM_DSESS_ADMIN_FREE_CLUSTER, 1, &cluster);
    EXPECT_EQ(cluster.key_label, nullptr);

    olm_dsess_admin_replica_set_record_t* members = nullptr;
    ASSERT_EQ(olm_dsess_admin_get_replica_set_info(library.handle, &kRoot, "alpha", &count, &members), 0U);
    ASSERT_EQ(count, 1);
    EXPECT_STREQ(members[0].name, "node1");
    EXPECT_EQ(members[0].time, 1700000001);
    release(OLM_DSESS_ADMIN_FREE_REPLICA_SET, count, &members);

    ASSERT_EQ(olm_dsess_admin_generate_new_key(library.handle, &kRoot, &cluster), 0U);
    EXPECT_STREQ(cluster.key_label, "key-2");
    EXPECT_EQ(cluster.second_time, 1700000000);
    release(OLM_DSESS_ADMIN_FREE_CLUSTER, 1, &cluster);

    const UserQuery query("m*");
    std::int32_t total = 0;
    olm_dsess_admin_session_t* sessions = nullptr;
    ASSERT_EQ(olm_dsess_admin_list_sessions(library.handle, &kRoot, &query, -1, &total, &count, &sessions), 0U);
    EXPECT_EQ(total, 5);
    ASSERT_EQ(count, 2);
    EXPECT_STREQ(sessions[1].first_text, "s-2");
    EXPECT_STREQ(sessions[1].second_text, "J\xC3\xBCrgen");
    EXPECT_EQ(sessions[1].time, -1);
    release(OLM_DSESS_ADMIN_FREE_SESSIONS, count, &sessions);

    std::int32_t level = 0;
    EXPECT_EQ(olm_dsess_admin_get_trace_level(library.handle, &kRoot, &level), 0U);
    EXPECT_EQ(level, 3);
    EXPECT_EQ(olm_dsess_admin_set_trace_level(library.handle, &kRoot, 4), 0U);
    EXPECT_EQ(olm_dsess_admin_terminate_sessions(library.handle, &kRoot, &query), 0U);
    EXPECT_EQ(olm_dsess_admin_refresh_sessions(library.handle, &kRoot, &query), 0U);
    EXPECT_TRUE(wasTraced(R"("method":"session.terminate")"));
    EXPECT_TRUE(wasTraced(R"("realm":"east","selector":"user","value":"m*")"));
}

TEST(Api, EmptyResultsAreNullArraysThatMayBeReleased) {
    const std::string path =
        answerFile(R"({"jsonrpc":"2.0","id":@ID@,"result":{"count":0,"total":7,"realms":[],"records":[],"sessions":[],)"
                   R"("key":{"label":"","time":1,"previousTime":2}}})");
    FaultServers servers({"answer=" + path});
    Library library(servers.urls());
    std::int32_t count = -1;
    std::int32_t total = -1;
    olm_dsess_admin_cluster_t cluster{};
    auto* realms = reinterpret_cast<olm_dsess_admin_realm_t*>(&count);
    auto* members = reinterpret_cast<olm_dsess_admin_replica_set_record_t*>(&count);
    auto* sessions = reinterpret_cast<olm_dsess_admin_session_t*>(&count);
    const UserQuery query("*");
    EXPECT_EQ(olm_dsess_admin_get_cluster_info(library.handle, &kRoot, &count, &realms, &cluster), 0U);
    EXPECT_EQ(olm_dsess_admin_get_replica_set_info(library.handle, &kRoot, "a", &count, &members), 0U);
    EXPECT_EQ(olm_dsess_admin_list_sessions(library.handle, &kRoot, &query, 3, &total, &count, &sessions), 0U);
    EXPECT_EQ(std::tuple(count, total, realms, members, sessions), std::tuple(0, 7, nullptr, nullptr, nullptr));
    EXPECT_STREQ(cluster.key_label, "");
    release(OLM_DSESS_ADMIN_FREE_REALMS, 0, &realms);
    release(OLM_DSESS_ADMIN_FREE_CLUSTER, 1, &cluster);
    std::remove(path.c_str());
}

TEST(Api, ErrorsOfTheServerHaveStatusesOfTheirOwnAndAreNotTriedElsewhere) {
    struct Case {
        const char* name;
        std::uint32_t status;
    };
    const Case cases[] = {
        {"identity-refused", kStatusIdentityRefused}, {"not-permitted", kStatusNotPermitted},
        {"unknown-realm", kStatusUnknownRealm},       {"unknown-replica-set", kStatusUnknownReplicaSet},
        {"invalid-value", kStatusRequestRefused},     {"invalid-request", kStatusRequestRefused},
        {"server-failure", kStatusServerFailed},      {"no-matching-session", kStatusNoMatchingSession},
        {"of-a-later-version", kStatusRequestRefused}};
    const std::string path = answerFile("");
    FaultServers servers({"answer=" + path, "good"});
    Library library(servers.urls());
    for (const Case& one : cases) {
        // A careless server that repeats the password is not repeated by the trace; nor is its text a format.
        answerFile(R"({"jsonrpc":"2.0","id":@ID@,"error":{"code":-32000,"message":"%n no SECRET","data":{"name":")" +
                   std::string(one.name) + R"("}}})");
        EXPECT_EQ(library.read(), one.status) << one.name;
        EXPECT_EQ(library.change(), one.status) << one.name;
        EXPECT_TRUE(wasTraced(std::string(one.name) + ": %n no ***\n"));
    }
    EXPECT_FALSE(wasTraced("SECRET"));
    EXPECT_EQ(servers.counts()[1].requests, 0);
    std::remove(path.c_str());
}

TEST(Api, MissingArgumentsAndHandlesGetAStatus) {
    FaultServers servers({"good"});
    Library library(servers.urls());
    void* const handle = library.handle;
    std::int32_t number = 0;
    olm_dsess_admin_realm_t* realms = nullptr;
    olm_dsess_admin_cluster_t cluster{};
    olm_dsess_admin_replica_set_record_t* members = nullptr;
    olm_dsess_admin_session_t* sessions = nullptr;
    const UserQuery query("m*");
    const olm_dsess_admin_sec_info_t* who = &kRoot;

    for (void* none : {static_cast<void*>(nullptr), static_cast<void*>(&number)}) {
        EXPECT_EQ(olm_dsess_admin_get_cluster_info(none, who, &number, &realms, &cluster), kStatusNoHandle);
        EXPECT_EQ(olm_dsess_admin_get_replica_set_info(none, who, "a", &number, &members), kStatusNoHandle);
        EXPECT_EQ(olm_dsess_admin_generate_new_key(none, who, &cluster), kStatusNoHandle);
        EXPECT_EQ(olm_dsess_admin_list_sessions(none, who, &query, 1, &number, &number, &sessions), kStatusNoHandle);
        EXPECT_EQ(olm_dsess_admin_terminate_sessions(none, who, &query), kStatusNoHandle);
        EXPECT_EQ(olm_dsess_admin_refresh_sessions(none, who, nullptr), kStatusNoHandle);
        EXPECT_EQ(olm_dsess_admin_get_trace_level(none, who, &number), kStatusNoHandle);
        EXPECT_EQ(olm_dsess_admin_set_trace_level(none, who, 1), kStatusNoHandle);
    }
    const std::uint32_t results[] = {
        olm_dsess_admin_get_cluster_info(handle, nullptr, &number, &realms, &cluster),
        olm_dsess_admin_get_cluster_info(handle, who, nullptr, &realms, &cluster),
        olm_dsess_admin_get_cluster_info(handle, who, &number, nullptr, &cluster),
        olm_dsess_admin_get_cluster_info(handle, who, &number, &realms, nullptr),
        olm_dsess_admin_get_replica_set_info(handle, who, nullptr, &number, &members),
        olm_dsess_admin_get_replica_set_info(handle, who, "a", nullptr, &members),
        olm_dsess_admin_get_replica_set_info(handle, who, "a", &number, nullptr),
        olm_dsess_admin_get_replica_set_info(handle, who, "\xFF", &number, &members),
        olm_dsess_admin_get_replica_set_info(handle, who, std::string(70000, 'a').c_str(), &number, &members),
        olm_dsess_admin_generate_new_key(handle, who, nullptr),
        olm_dsess_admin_list_sessions(handle, who, nullptr, 1, &number, &number, &sessions),
        olm_dsess_admin_list_sessions(handle, who, &query, -2, &number, &number, &sessions),
        olm_dsess_admin_list_sessions(handle, who, &query, 1, nullptr, &number, &sessions),
        olm_dsess_admin_list_sessions(handle, who, &query, 1, &number, nullptr, &sessions),
        olm_dsess_admin_list_sessions(handle, who, &query, 1, &number, &number, nullptr),
        olm_dsess_admin_terminate_sessions(handle, who, nullptr),
        olm_dsess_admin_refresh_sessions(handle, nullptr, &query),
        olm_dsess_admin_get_trace_level(handle, who, nullptr),
        olm_dsess_admin_set_trace_level(handle, nullptr, 1),
    };
    for (std::size_t index = 0; index < std::size(results); ++index) {
        EXPECT_EQ(results[index], kStatusInvalidArgument) << index;
    }
    olm_dsess_admin_free(nullptr);
    release(OLM_DSESS_ADMIN_FREE_REALMS, 0, nullptr);
    release(99, 1, &number);
    EXPECT_EQ(servers.counts()[0].requests, 0);
}

TEST(Api, OnlyTheSelectorsOfTheCatalogueAreKnown) {
    FaultServers servers({"good"});
    Library library(servers.urls());
    const auto terminate = [&](auto change) {
        UserQuery query("mallory");
        change(query);
        return olm_dsess_admin_terminate_sessions(library.handle, &kRoot, &query);
    };
    using Query = UserQuery&;
    EXPECT_EQ(terminate([](Query query) {
                  query.selector_text1 = "session";
                  query.selector_text2 = "session identifier";
              }),
              0U);
    EXPECT_TRUE(wasTraced(R"("selector":"session")"));
    const std::uint32_t refused[] = {terminate([](Query query) { query.selector_text1 = "session"; }),
                                     terminate([](Query query) { query.selector_text2 = nullptr; }),
                                     terminate([](Query query) { query.realm = nullptr; }),
                                     terminate([](Query query) { query.value_list.count = 2; }),
                                     terminate([](Query query) { query.value_list.values = nullptr; }),
                                     terminate([](Query query) { query.values[0] = nullptr; })};
    for (const std::uint32_t status : refused) {
        EXPECT_EQ(status, kStatusInvalidArgument);
    }
}

TEST(Api, ContextsAreCheckedMadeAndMadeAgain) {
    char url[] = "http://127.0.0.1:1/";
    char* urls[] = {url, nullptr};
    const olm_dsess_admin_mv_string_t good{1, urls};
    const olm_dsess_admin_mv_string_t withNull{2, urls};
    const olm_dsess_admin_mv_string_t negative{-1, urls};
    const olm_dsess_admin_mv_string_t none{};
    const olm_dsess_admin_ssl_info_t nullNames{{1, nullptr}, nullptr, nullptr, nullptr, 0};
    void* context = url;
    const auto initialize = [&](std::int32_t timeout, const auto* list, const auto* tls) {
        context = url;
        return olm_dsess_admin_initialize(timeout, list, tls, nullptr, &context);
    };
    const olm_dsess_admin_mv_string_t* noList = nullptr;
    const olm_dsess_admin_ssl_info_t* noTls = nullptr;
    for (const std::uint32_t status :
         {initialize(-1, &good, &kNoTls), initialize(1, noList, &kNoTls), initialize(1, &withNull, &kNoTls),
          initialize(1, &negative, &kNoTls), initialize(1, &good, noTls), initialize(1, &good, &nullNames)}) {
        EXPECT_EQ(status, kStatusInvalidArgument);
        EXPECT_EQ(context, nullptr);
    }
    EXPECT_EQ(olm_dsess_admin_initialize(1, &good, &kNoTls, nullptr, nullptr), kStatusInvalidArgument);
    void* handle = url;
    EXPECT_EQ(olm_dsess_admin_create_handle(nullptr, &handle), kStatusInvalidArgument);
    EXPECT_EQ(handle, nullptr);

    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(initialize(0, &none, &kNoTls), 0U);
        EXPECT_EQ(olm_dsess_admin_create_handle(context, nullptr), kStatusInvalidArgument);
        ASSERT_EQ(olm_dsess_admin_create_handle(context, &handle), 0U);
        std::int32_t level = 0;
        EXPECT_EQ(olm_dsess_admin_get_trace_level(handle, &kRoot, &level), kStatusNoLocation);
        void* const stale = handle;
        if (round > 0) {
            olm_dsess_admin_release_handle(context, &handle);
            olm_dsess_admin_release_handle(context, &handle);
        }
        olm_dsess_admin_shutdown(&context);
        olm_dsess_admin_shutdown(&context);
        EXPECT_EQ(context, nullptr);
        EXPECT_EQ(olm_dsess_admin_get_trace_level(stale, &kRoot, &level), kStatusNoHandle);
    }
    olm_dsess_admin_shutdown(nullptr);
    olm_dsess_admin_release_handle(nullptr, nullptr);
}

TEST(Api, TheLibraryExportsItsFunctionsAndNothingElse) {
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen("nm -D " VEXIL_CLIENT_LIBRARY, "r"), pclose);
    std::array<char, 512> line{};
    int exported = 0;
    while (fgets(line.data(), line.size(), pipe.get()) != nullptr) {
        const std::string text(line.data());
        EXPECT_EQ(text.find("olmdsess_admin_client_trace"), std::string::npos) << text;
        if (text.find(" U ") == std::string::npos && text.find(" w ") == std::string::npos) {
            EXPECT_NE(text.find(" T olm_dsess_admin_"), std::string::npos) << text;
            ++exported;
        }
    }
    EXPECT_EQ(exported, 13);
}

}  // namespace
