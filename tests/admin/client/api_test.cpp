// The functions: what they take, give and release.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>

#include "runtime/qel_messages.h"
#include "tests/admin/client/Library.h"

namespace {

/// Where the functions put their results.
struct Results {
    std::int32_t count = -1;
    std::int32_t total = -1;
    olm_dsess_admin_realm_t* realms = nullptr;
    olm_dsess_admin_cluster_t cluster{};
    olm_dsess_admin_replica_set_record_t* members = nullptr;
    olm_dsess_admin_session_t* sessions = nullptr;
};

TEST(Api, EveryOperationDeliversWhatTheServerSays) {
    FaultServers servers({"good"});
    Library library(servers.urls);
    auto [count, total, realms, cluster, members, sessions] = Results();
    ASSERT_EQ(olm_dsess_admin_get_cluster_info(library.handle, &kRoot, &count, &realms, &cluster), 0U);
    ASSERT_EQ(count, 2);
    ASSERT_EQ(std::pair(realms[0].replica_set_count, realms[1].replica_set_count), std::pair(2, 0));
    EXPECT_STREQ(realms[0].replica_set_names[1], "beta");
    EXPECT_STREQ(realms[1].name, "west");
    release(OLM_DSESS_ADMIN_FREE_SESSIONS, count, &realms);  // not its kind
    ASSERT_NE(realms, nullptr);
    release(OLM_DSESS_ADMIN_FREE_REALMS, count, &realms);
    EXPECT_EQ(realms, nullptr);
    // The key outlives the realms.
    EXPECT_STREQ(cluster.key_label, "key-1");
    EXPECT_EQ(std::pair(cluster.key_time, cluster.second_time), std::pair(1700000000, 0));
    release(OLM_DSESS_ADMIN_FREE_CLUSTER, 1, &cluster);
    EXPECT_EQ(cluster.key_label, nullptr);

    ASSERT_EQ(olm_dsess_admin_get_replica_set_info(library.handle, &kRoot, "alpha", &count, &members), 0U);
    ASSERT_EQ(std::pair(count, members[0].time), std::pair(1, 1700000001));
    EXPECT_STREQ(members[0].name, "node1");
    release(OLM_DSESS_ADMIN_FREE_REPLICA_SET, count, &members);

    ASSERT_EQ(olm_dsess_admin_generate_new_key(library.handle, &kRoot, &cluster), 0U);
    EXPECT_EQ(cluster.second_time, 1700000000);
    release(OLM_DSESS_ADMIN_FREE_CLUSTER, 1, &cluster);

    const UserQuery query("m*");
    ASSERT_EQ(olm_dsess_admin_list_sessions(library.handle, &kRoot, &query, -1, &total, &count, &sessions), 0U);
    ASSERT_EQ(std::pair(total, count), std::pair(5, 2));
    EXPECT_STREQ(sessions[1].first_text, "J\xC3\xBCrgen");
    EXPECT_STREQ(sessions[1].second_text, "s-2");
    EXPECT_EQ(sessions[1].time, -1);
    release(OLM_DSESS_ADMIN_FREE_SESSIONS, count, &sessions);

    EXPECT_EQ(olm_dsess_admin_get_trace_level(library.handle, &kRoot, &count), 0U);
    EXPECT_EQ(count, 3);
    EXPECT_EQ(olm_dsess_admin_set_trace_level(library.handle, &kRoot, 4), 0U);
    EXPECT_EQ(olm_dsess_admin_refresh_sessions(library.handle, &kRoot, &query), 0U);
    UserQuery one("s");
    one.selector_text1 = OLM_DSESS_ADMIN_SESSION_SELECTOR1;
    one.selector_text2 = OLM_DSESS_ADMIN_SESSION_SELECTOR2;
    EXPECT_EQ(olm_dsess_admin_terminate_sessions(library.handle, &kRoot, &one), 0U);
    for (const char* fragment :
         {R"("method":"session.terminate")", R"("realm":"east","selector":"user","value":"m*")",
          R"("selector":"session","value":"s")", R"("user":"root","password":"***","loginId":"login-1")"}) {
        EXPECT_TRUE(wasTraced(fragment)) << fragment;
    }
    EXPECT_FALSE(wasTraced("SECRET"));
}

TEST(Api, EmptyResultsAreNullAndErrorsHaveStatusesAndAreNotTriedElsewhere) {
    const std::pair<std::string, std::uint32_t> cases[] = {
        {"identity-refused", kStatusIdentityRefused}, {"not-permitted", kStatusNotPermitted},
        {"unknown-realm", kStatusUnknownRealm},       {"unknown-replica-set", kStatusUnknownReplicaSet},
        {"invalid-value", kStatusRequestRefused},     {"invalid-request", kStatusRequestRefused},
        {"server-failure", kStatusServerFailed},      {"no-matching-session", kStatusNoMatchingSession},
        {"of-a-later-version", kStatusRequestRefused}};
    const std::string path = answerFile(R"({"jsonrpc":"2.0","id":@ID@,"result":{"count":0,"realms":[],)"
                                        R"("key":{"label":"","time":1,"previousTime":2}}})");
    FaultServers servers({"answer=" + path, "good"});
    Library library(servers.urls);
    Results to;
    to.realms = reinterpret_cast<olm_dsess_admin_realm_t*>(&to);
    EXPECT_EQ(olm_dsess_admin_get_cluster_info(library.handle, &kRoot, &to.count, &to.realms, &to.cluster), 0U);
    EXPECT_TRUE(to.count == 0 && to.realms == nullptr);
    EXPECT_STREQ(to.cluster.key_label, "");
    release(OLM_DSESS_ADMIN_FREE_REALMS, 0, &to.realms);
    release(OLM_DSESS_ADMIN_FREE_CLUSTER, 1, &to.cluster);
    for (const auto& [name, status] : cases) {
        // A careless server that repeats the password is not repeated by the trace; nor is its text a format.
        answerFile(R"({"jsonrpc":"2.0","id":@ID@,"error":{"code":-32000,"message":"%n no SECRET","data":{"name":")" +
                   name + R"("}}})");
        EXPECT_EQ(library.read(), status) << name;
        EXPECT_EQ(library.change(), status) << name;
        EXPECT_TRUE(wasTraced("1 " + servers.urls[0] + ": " + name + ": %n no ***\n"));
        EXPECT_EQ(wasTraced("0 the server says: %n no ***\n"), status == kStatusRequestRefused) << name;
        const bool refusedTheUser = status == kStatusIdentityRefused || status == kStatusNotPermitted;
        EXPECT_EQ(wasTraced("0 the request was sent as the user root\n"), refusedTheUser) << name;
        traced.clear();
    }
    EXPECT_FALSE(wasTraced("SECRET"));
    EXPECT_EQ(servers.counts()[1].requests, 0);
    std::remove(path.c_str());
}

TEST(Api, MissingAndInvalidArgumentsGetAStatus) {
    FaultServers servers({"good"});
    Library library(servers.urls);
    void* const handle = library.handle;
    auto [count, total, realms, cluster, members, sessions] = Results();
    const UserQuery query("m*");
    const olm_dsess_admin_sec_info_t* who = &kRoot;
    for (void* none : {static_cast<void*>(nullptr), static_cast<void*>(&count)}) {
        EXPECT_EQ(olm_dsess_admin_get_cluster_info(none, who, &count, &realms, &cluster), kStatusNoHandle);
        EXPECT_EQ(olm_dsess_admin_refresh_sessions(none, who, nullptr), kStatusNoHandle);
        EXPECT_EQ(olm_dsess_admin_set_trace_level(none, who, 1), kStatusNoHandle);
    }
    const auto refresh = [&](auto change) {
        UserQuery changed("mallory");
        change(changed);
        return olm_dsess_admin_refresh_sessions(handle, who, &changed);
    };
    const std::uint32_t results[] = {
        olm_dsess_admin_get_cluster_info(handle, nullptr, &count, &realms, &cluster),
        olm_dsess_admin_get_cluster_info(handle, who, nullptr, &realms, &cluster),
        olm_dsess_admin_get_cluster_info(handle, who, &count, nullptr, &cluster),
        olm_dsess_admin_get_cluster_info(handle, who, &count, &realms, nullptr),
        olm_dsess_admin_get_replica_set_info(handle, who, nullptr, &count, &members),
        olm_dsess_admin_get_replica_set_info(handle, who, "a", nullptr, &members),
        olm_dsess_admin_get_replica_set_info(handle, who, "a", &count, nullptr),
        olm_dsess_admin_get_replica_set_info(handle, who, "\xFF", &count, &members),
        olm_dsess_admin_get_replica_set_info(handle, who, std::string(70000, 'a').c_str(), &count, &members),
        olm_dsess_admin_generate_new_key(handle, who, nullptr),
        olm_dsess_admin_list_sessions(handle, who, nullptr, 1, &total, &count, &sessions),
        olm_dsess_admin_list_sessions(handle, who, &query, -2, &total, &count, &sessions),
        olm_dsess_admin_list_sessions(handle, who, &query, 1, nullptr, &count, &sessions),
        olm_dsess_admin_list_sessions(handle, who, &query, 1, &total, nullptr, &sessions),
        olm_dsess_admin_list_sessions(handle, who, &query, 1, &total, &count, nullptr),
        olm_dsess_admin_terminate_sessions(handle, who, nullptr),
        olm_dsess_admin_get_trace_level(handle, who, nullptr),
        refresh([](UserQuery& changed) { changed.selector_text1 = "session"; }),  // with the text of another selector
        refresh([](UserQuery& changed) { changed.selector_text2 = nullptr; }),
        refresh([](UserQuery& changed) { changed.realm = nullptr; }),
        refresh([](UserQuery& changed) { changed.value_list.count = 2; }),
        refresh([](UserQuery& changed) { changed.value_list.values = nullptr; }),
        refresh([](UserQuery& changed) { changed.values[0] = nullptr; }),
    };
    EXPECT_THAT(results, testing::Each(kStatusInvalidArgument));
    olm_dsess_admin_free(nullptr);
    release(OLM_DSESS_ADMIN_FREE_REALMS, 0, nullptr);
    release(99, 1, &count);
    EXPECT_EQ(servers.counts()[0].requests, 0);
}

TEST(Api, ContextsAreCheckedMadeAndMadeAgain) {
    char url[] = "http://127.0.0.1:1/";
    char* urls[] = {url, nullptr};
    const olm_dsess_admin_mv_string_t good{1, urls};
    const olm_dsess_admin_mv_string_t withNull{2, urls}, negative{-1, urls}, none{};
    const olm_dsess_admin_ssl_info_t tls{};
    const olm_dsess_admin_ssl_info_t nullNames{{1, nullptr}, nullptr, nullptr, nullptr, 0};
    void* context = url;
    void* handle = url;
    const std::tuple<std::int32_t, const olm_dsess_admin_mv_string_t*, const olm_dsess_admin_ssl_info_t*> refused[] = {
        {-1, &good, &tls},    {1, nullptr, &tls},  {1, &withNull, &tls},
        {1, &negative, &tls}, {1, &good, nullptr}, {1, &good, &nullNames}};
    for (const auto& [timeout, list, settings] : refused) {
        context = url;
        EXPECT_EQ(olm_dsess_admin_initialize(timeout, list, settings, nullptr, &context), kStatusInvalidArgument);
        EXPECT_EQ(context, nullptr);
    }
    EXPECT_EQ(olm_dsess_admin_initialize(1, &good, &tls, nullptr, nullptr), kStatusInvalidArgument);
    EXPECT_EQ(olm_dsess_admin_create_handle(nullptr, &handle), kStatusInvalidArgument);
    EXPECT_EQ(handle, nullptr);

    for (int round = 0; round < 3; ++round) {
        ASSERT_EQ(olm_dsess_admin_initialize(0, &none, &tls, nullptr, &context), 0U);
        EXPECT_EQ(olm_dsess_admin_create_handle(context, nullptr), kStatusInvalidArgument);
        ASSERT_EQ(olm_dsess_admin_create_handle(context, &handle), 0U);
        std::int32_t level = 0;
        EXPECT_EQ(olm_dsess_admin_get_trace_level(handle, &kRoot, &level), kStatusNoLocation);
        void* const stale = handle;
        if (round > 0) {
            olm_dsess_admin_release_handle(context, &handle);
            olm_dsess_admin_release_handle(context, &handle);
            EXPECT_EQ(olm_dsess_admin_get_trace_level(stale, &kRoot, &level), kStatusNoHandle);
        }
        olm_dsess_admin_shutdown(&context);
        olm_dsess_admin_shutdown(&context);
        EXPECT_EQ(olm_dsess_admin_get_trace_level(stale, &kRoot, &level), kStatusNoHandle);
    }
    olm_dsess_admin_shutdown(nullptr);
    olm_dsess_admin_release_handle(nullptr, nullptr);
}

TEST(Api, TheLibraryExportsItsFunctionsAndNothingElse) {
    const std::string nm = "test $(nm -D " VEXIL_CLIENT_LIBRARY;
    EXPECT_EQ(std::system((nm + " --defined-only | wc -l) = 14").c_str()), 0);
    EXPECT_EQ(std::system((nm + " | grep -c ' T olm_dsess_admin_') = 14").c_str()), 0);
    EXPECT_EQ(std::system((nm + " | grep -c olmdsess_admin_client_trace) = 0").c_str()), 0);
}

}  // namespace
