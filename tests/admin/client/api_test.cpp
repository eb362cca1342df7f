// The functions: what they take, give and release. What they get across is tried on the real server.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>

#include <ctime>
#include <new>
#include <thread>

#include "catalogue/qel_messages.h"
#include "tests/admin/client/Library.h"

static bool isMemoryRefused = false;

// Stand in for those of the C++ library, also in the client library; inlined, one alone looks like a mistake.
__attribute__((noinline)) void* operator new(std::size_t size) {
    void* const block = isMemoryRefused ? nullptr : std::malloc(size);
    return block == nullptr ? throw std::bad_alloc() : block;
}
__attribute__((noinline)) void operator delete(void* block) noexcept {
    std::free(block);
}
__attribute__((noinline)) void operator delete(void* block, std::size_t /*size*/) noexcept {
    std::free(block);
}

namespace {

TEST(Api, ResultsAreReleasedByTheirKindAndRequestsTracedWithoutThePassword) {
    FaultServers servers({"good"});
    Library library(servers.urls, 0);  // as long as is usual
    std::int32_t count = 0;
    olm_dsess_admin_realm_t* realms = nullptr;
    olm_dsess_admin_cluster_t cluster{};
    ASSERT_EQ(olm_dsess_admin_get_cluster_info(library.handle, &kRoot, &count, &realms, &cluster), 0U);
    ASSERT_EQ(std::tuple(count, realms[0].replica_set_count, realms[1].replica_set_count), std::tuple(2, 2, 0));
    EXPECT_STREQ(realms[0].replica_set_names[1], "beta");
    release(OLM_DSESS_ADMIN_FREE_SESSIONS, count, &realms);  // not its kind
    ASSERT_NE(realms, nullptr);
    release(OLM_DSESS_ADMIN_FREE_REALMS, count, &realms);
    EXPECT_EQ(realms, nullptr);
    EXPECT_STREQ(cluster.key_label, "key-2");  // it outlives the realms
    release(OLM_DSESS_ADMIN_FREE_CLUSTER, 1, &cluster);
    EXPECT_EQ(cluster.key_label, nullptr);

    const olm_dsess_admin_sec_info_t nobody{};
    const auto query = allSessions();
    const olm_dsess_admin_sec_info_t odd{"\"\\\t\x1B", nullptr, nullptr, nullptr};
    EXPECT_EQ(olm_dsess_admin_set_trace_level(library.handle, &nobody, 4), 0U);
    EXPECT_EQ(olm_dsess_admin_set_trace_level(library.handle, &odd, 4), 0U);
    EXPECT_EQ(olm_dsess_admin_refresh_sessions(library.handle, &kRoot, &query), 0U);
    for (const char* fragment : {R"("user":null,"password":null,"loginId":null},"level":4,"changeId":")",
                                 R"("user":"root","password":"***","loginId":"login-1"})", R"("clusterId":"c)",
                                 R"("user":"\"\\\u0009\u001b",)"}) {
        EXPECT_TRUE(wasTraced(fragment)) << fragment;
    }
    EXPECT_FALSE(wasTraced("SECRET"));
}

TEST(Api, EmptyResultsAreNullAndErrorsHaveStatusesAndAreNotTriedElsewhere) {
    const std::string path = answerFile(R"({"jsonrpc":"2.0","id":@ID@,"result":{"count":0,"realms":[],)"
                                        R"("key":{"label":"","time":1,"previousTime":2}}})");
    FaultServers servers({"answer=" + path, "good"});
    Library library(servers.urls);
    std::int32_t count = -1;
    auto* realms = reinterpret_cast<olm_dsess_admin_realm_t*>(&count);
    olm_dsess_admin_cluster_t cluster{};
    EXPECT_EQ(olm_dsess_admin_get_cluster_info(library.handle, &kRoot, &count, &realms, &cluster), 0U);
    EXPECT_TRUE(count == 0 && realms == nullptr);
    EXPECT_STREQ(cluster.key_label, "");
    release(OLM_DSESS_ADMIN_FREE_CLUSTER, 1, &cluster);
    for (const auto& [name, status] : {std::pair<std::string, std::uint32_t>("not-permitted", kStatusNotPermitted),
                                       {"of-a-later-version", kStatusRequestRefused}}) {
        // A server that repeats the password is not repeated by the trace, wherever that cuts; nor is its text a
        // format.
        const std::string message = "%n no " + std::string(2039, 'x');
        answerFile(R"({"jsonrpc":"2.0","id":@ID@,"error":{"code":-32000,"message":")" + message +
                   R"(SECRET, SECRET","data":{"name":")" + name + R"("}}})");
        EXPECT_EQ(library.read(), status) << name;
        EXPECT_EQ(library.change(), status) << name;
        EXPECT_TRUE(wasTraced("1 " + servers.urls[0] + ": " + name + ": " + message + "***\n"));
        EXPECT_EQ(wasTraced("0 the server says: " + message + "***\n"), status == kStatusRequestRefused) << name;
        EXPECT_EQ(wasTraced("0 the request was sent as the user root\n"), status == kStatusNotPermitted);
        traced.clear();
        const olm_dsess_admin_sec_info_t nobody{};
        EXPECT_EQ(olm_dsess_admin_set_trace_level(library.handle, &nobody, 4), status);
    }
    EXPECT_EQ(servers.counts()[1].requests, 0);
}

TEST(Api, MissingAndInvalidArgumentsGetAStatus) {
    FaultServers servers({"good"});
    Library library(servers.urls);
    void* const handle = library.handle;
    std::int32_t number = 0;
    olm_dsess_admin_cluster_t cluster{};
    olm_dsess_admin_realm_t* realms = nullptr;
    olm_dsess_admin_replica_set_record_t* members = nullptr;
    olm_dsess_admin_session_t* sessions = nullptr;
    const auto query = allSessions();
    const auto refresh = [&](auto change) {
        auto changed = query;
        change(changed);
        return olm_dsess_admin_refresh_sessions(handle, &kRoot, &changed);
    };
    char* none[] = {nullptr};
    const olm_dsess_admin_sec_info_t badUser{"\xFF", nullptr, nullptr, nullptr};
    const olm_dsess_admin_sec_info_t badPassword{"a", nullptr, nullptr, "\xFF"};
    const olm_dsess_admin_mv_string_t urls{};
    const olm_dsess_admin_ssl_info_t tls{};
    EXPECT_EQ(olm_dsess_admin_refresh_sessions(nullptr, &kRoot, nullptr), kStatusNoHandle);
    EXPECT_EQ(olm_dsess_admin_set_trace_level(&number, &kRoot, 1), kStatusNoHandle);
    const std::uint32_t results[] = {
        olm_dsess_admin_get_cluster_info(handle, nullptr, &number, &realms, &cluster),
        olm_dsess_admin_get_cluster_info(handle, &kRoot, &number, nullptr, &cluster),
        olm_dsess_admin_get_replica_set_info(handle, &kRoot, nullptr, &number, &members),
        olm_dsess_admin_get_replica_set_info(handle, &kRoot, "a", &number, nullptr),
        olm_dsess_admin_get_replica_set_info(handle, &kRoot, "\xFF", &number, &members),
        olm_dsess_admin_get_replica_set_info(handle, &kRoot, std::string(70000, 'a').c_str(), &number, &members),
        olm_dsess_admin_generate_new_key(handle, &kRoot, nullptr),
        olm_dsess_admin_list_sessions(handle, &kRoot, &query, -2, &number, &number, &sessions),
        olm_dsess_admin_list_sessions(handle, &kRoot, &query, 1, &number, &number, nullptr),
        olm_dsess_admin_terminate_sessions(handle, &kRoot, nullptr),
        olm_dsess_admin_get_trace_level(handle, &kRoot, nullptr),
        refresh([](auto& changed) { changed.selector_text1 = "session"; }),  // with the text of another selector
        refresh([](auto& changed) { changed.selector_text2 = nullptr; }),
        refresh([](auto& changed) { changed.realm = nullptr; }),
        refresh([](auto& changed) { changed.value_list.count = 2; }),
        refresh([](auto& changed) { changed.value_list.values = nullptr; }),
        refresh([&](auto& changed) { changed.value_list.values = none; }),
        olm_dsess_admin_set_trace_level(handle, &badUser, 1),
        olm_dsess_admin_set_trace_level(handle, &badPassword, 1),
        olm_dsess_admin_initialize(1, &urls, &tls, nullptr, nullptr),
    };
    EXPECT_THAT(results, testing::Each(kStatusInvalidArgument));
    olm_dsess_admin_free(nullptr);
    release(99, 1, &number);
    EXPECT_EQ(servers.counts()[0].requests, 0);
}

TEST(Api, ContextsAreCheckedMadeAndMadeAgain) {
    char url[] = "http://127.0.0.1:1/";
    char* urls[] = {url, nullptr};
    const olm_dsess_admin_mv_string_t good{1, urls}, withNull{2, urls}, negative{-1, urls}, none{};
    const olm_dsess_admin_ssl_info_t tls{}, badTls{withNull, nullptr, nullptr, nullptr, 0};
    void* context = url;
    void* handle = url;
    const std::tuple<std::int32_t, const olm_dsess_admin_mv_string_t*, const olm_dsess_admin_ssl_info_t*> refused[] = {
        {-1, &good, &tls},    {1, nullptr, &tls},  {1, &withNull, &tls},
        {1, &negative, &tls}, {1, &good, nullptr}, {1, &good, &badTls}};
    for (const auto& [timeout, list, settings] : refused) {
        context = url;
        EXPECT_EQ(olm_dsess_admin_initialize(timeout, list, settings, nullptr, &context), kStatusInvalidArgument);
        EXPECT_EQ(context, nullptr);
    }
    EXPECT_EQ(olm_dsess_admin_create_handle(nullptr, &handle), kStatusInvalidArgument);
    EXPECT_EQ(handle, nullptr);
    for (const bool released : {false, true}) {
        ASSERT_EQ(olm_dsess_admin_initialize(0, &none, &tls, nullptr, &context), 0U);
        ASSERT_EQ(olm_dsess_admin_create_handle(context, &handle), 0U);
        std::int32_t level = 0;
        EXPECT_EQ(olm_dsess_admin_get_trace_level(handle, &kRoot, &level), kStatusNoLocation);
        void* const stale = handle;
        if (released) {
            olm_dsess_admin_release_handle(context, &handle);
            olm_dsess_admin_release_handle(context, &handle);
            EXPECT_EQ(olm_dsess_admin_get_trace_level(stale, &kRoot, &level), kStatusNoHandle);
        }
        olm_dsess_admin_shutdown(&context);
        EXPECT_EQ(context, nullptr);
        EXPECT_EQ(olm_dsess_admin_get_trace_level(stale, &kRoot, &level), kStatusNoHandle);
    }
    olm_dsess_admin_shutdown(&context);
}

void throwing(std::int32_t /*level*/, const char* /*format*/, ...) {
    throw 1;
}

/// Memory is exhausted once the answer has come.
void exhausting(std::int32_t level, const char* /*format*/, ...) {
    static bool hasAsked = false;
    isMemoryRefused = level == 3 && std::exchange(hasAsked, !hasAsked);
}

TEST(Api, WhatTheCallerDoesMeanwhileChangesNoStatus) {
    FaultServers servers({"reset=request", "slow=0.3", "good", "good"});
    const olm_dsess_admin_ssl_info_t plain{};
    for (const auto& [index, trace] : {std::pair(0, &throwing), {3, &exhausting}}) {
        char* url = servers.urls[index].data();
        const olm_dsess_admin_mv_string_t list{1, &url};
        void* context = nullptr;
        void* handle = nullptr;
        ASSERT_EQ(olm_dsess_admin_initialize(1, &list, &plain, trace, &context), 0U);
        ASSERT_EQ(olm_dsess_admin_create_handle(context, &handle), 0U);
        const std::uint32_t status = olm_dsess_admin_set_trace_level(handle, &kRoot, 1);
        isMemoryRefused = false;
        EXPECT_EQ(status, kStatusOutcomeUnknown);
        olm_dsess_admin_shutdown(&context);
    }
    Library slow({servers.urls[1]});
    std::uint32_t status = 1;
    std::thread thread([&] {
        status = slow.change();
        pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    });
    pthread_cancel(thread.native_handle());
    thread.join();
    EXPECT_EQ(status, 0U);
    // A child process, which neither uses nor ends what its parent has.
    Library library({servers.urls[2]});
    ASSERT_EQ(library.read(), 0U);
    const pid_t child = fork();
    if (child == 0) {
        const bool reads = library.read() == 0;
        olm_dsess_admin_interrupt(1);
        const bool isInterrupted = library.change() == kStatusInterrupted && library.read() == kStatusInterrupted;
        olm_dsess_admin_interrupt(0);
        const std::clock_t before = std::clock();
        const bool rests = slow.read() == 0 && std::clock() - before < CLOCKS_PER_SEC / 10;
        library.~Library();
        _exit(reads && isInterrupted && rests ? 0 : 1);
    }
    int ended = -1;
    waitpid(child, &ended, 0);
    EXPECT_EQ(ended, 0);
    EXPECT_EQ(library.read(), 0U);
    EXPECT_EQ(servers.counts()[2].connections, 2);
    // Programs that it starts inherit no connection.
    for (int descriptor = 3; descriptor < 100; ++descriptor) {
        struct stat info {};
        EXPECT_TRUE(fstat(descriptor, &info) != 0 || !S_ISSOCK(info.st_mode) ||
                    fcntl(descriptor, F_GETFD) == FD_CLOEXEC);
    }
}

}  // namespace
