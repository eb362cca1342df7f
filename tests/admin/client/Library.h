/// The library under test, through its C interface, and the servers (tests/support/fault_server.py) to try it on.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "admin/client-interface/olm_dsess_admin.h"

#if !defined(__SANITIZE_ADDRESS__)
inline constexpr double kLateness = 0.4;  ///< with which a deadline may be met, in seconds
#else
inline constexpr double kLateness = 1.0;  // the sanitizers slow everything down
#endif

/// Lines that the present library traced, each "LEVEL text\n", and what is to be done at each.
inline std::vector<std::string> traced;
inline std::function<void(const std::string& line)> onTrace;

__attribute__((format(printf, 2, 3))) inline void recordTrace(std::int32_t level, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    char text[8192];
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    traced.push_back(std::to_string(level) + " " + text);
    if (onTrace) {
        onTrace(traced.back());
    }
}

inline bool wasTraced(const std::string& fragment) {
    return std::any_of(traced.begin(), traced.end(),
                       [&](const std::string& line) { return line.find(fragment) != std::string::npos; });
}

/// Releases a result through olm_dsess_admin_free.
inline void release(std::int32_t kind, std::int32_t count, void* result) {
    const olm_dsess_admin_free_info_t request{kind, count, result};
    olm_dsess_admin_free(&request);
}

inline constexpr olm_dsess_admin_sec_info_t kRoot{"root", nullptr, "login-1", "SECRET"};

/// A query of all sessions, by user.
inline olm_dsess_admin_session_query_t allSessions() {
    static char any[] = "*";
    static char* values[] = {any};
    return {"east", OLM_DSESS_ADMIN_USER_SELECTOR1, OLM_DSESS_ADMIN_USER_SELECTOR2, {1, values}, 0, 0};
}

/// Settings of a connection, as the configuration would give them; empty texts are null pointers.
struct TlsSettings {
    std::string keyFile, stash, label;
    std::vector<std::string> serverNames;
    bool fips = false;
};

/// A context with a handle; both are gone at the end of scope.
class Library {
  public:
    explicit Library(std::vector<std::string> urls, std::int32_t timeout = 2, TlsSettings tls = {}) {
        std::vector<char*> pointers[2];
        const auto listOf = [](std::vector<std::string>& texts, std::vector<char*>& list) {
            for (std::string& text : texts) {
                list.push_back(text.data());
            }
            return olm_dsess_admin_mv_string_t{static_cast<std::int32_t>(list.size()), list.data()};
        };
        const auto orNull = [](std::string& text) { return text.empty() ? nullptr : text.data(); };
        const auto list = listOf(urls, pointers[0]);
        const olm_dsess_admin_ssl_info_t settings{listOf(tls.serverNames, pointers[1]), orNull(tls.keyFile),
                                                  orNull(tls.stash), orNull(tls.label), tls.fips ? 1 : 0};
        traced.clear();
        initialized = olm_dsess_admin_initialize(timeout, &list, &settings, recordTrace, &m_context);
        olm_dsess_admin_create_handle(m_context, &handle);
    }
    ~Library() { olm_dsess_admin_shutdown(&m_context); }
    Library(const Library&) = delete;

    std::uint32_t initialized;
    void* handle = nullptr;
    double seconds = 0;  ///< that the last of the following took

    /// A request that reads, one that changes something, and one that may have a long answer, all with their results
    /// released.
    std::uint32_t read() {
        return timed([this] { return olm_dsess_admin_get_cluster_info(handle, &kRoot, &count, &realms, &cluster); });
    }
    std::uint32_t change() {
        return timed([this] { return olm_dsess_admin_generate_new_key(handle, &kRoot, &cluster); });
    }
    std::uint32_t list() {
        const auto query = allSessions();
        return timed(
            [&] { return olm_dsess_admin_list_sessions(handle, &kRoot, &query, -1, &total, &count, &sessions); });
    }
    std::int32_t total = 0, count = 0;  ///< of the last answer

  private:
    std::uint32_t timed(const auto& request) {
        const auto start = std::chrono::steady_clock::now();
        const std::uint32_t status = request();
        seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        release(OLM_DSESS_ADMIN_FREE_REALMS, count, &realms);
        release(OLM_DSESS_ADMIN_FREE_SESSIONS, count, &sessions);
        release(OLM_DSESS_ADMIN_FREE_CLUSTER, 1, &cluster);
        return status;
    }

    olm_dsess_admin_realm_t* realms = nullptr;
    olm_dsess_admin_session_t* sessions = nullptr;
    olm_dsess_admin_cluster_t cluster{};

    void* m_context = nullptr;
};

/// Writes the file for a fault server's mode answer=FILE, gone at exit, and names it.
inline std::string answerFile(const std::string& text) {
    static const std::string path = "answer-" + std::to_string(getpid()) + ".json";
    std::ofstream(path, std::ios::binary) << text;
    std::atexit([] { std::remove(path.c_str()); });
    return path;
}

/// A fault server for each mode, together in a process of their own.
class FaultServers {
  public:
    struct Counts {
        long connections = -1, requests = -1, changes = -1;
    };

    explicit FaultServers(const std::vector<std::string>& modes, const std::string& files = "'' ''") {
        const std::string pipe = "counts-" + std::to_string(getpid());
        std::string command = "exec python3 " VEXIL_TESTS_SUPPORT "/fault_server.py " + files;
        for (const std::string& mode : modes) {
            command += " '" + mode + "'";
        }
        mkfifo(pipe.c_str(), 0600);
        m_input = popen((command + " >" + pipe).c_str(), "we");
        m_output = std::fopen(pipe.c_str(), "re");  // a stream of libc++ would wait for the pipe's end
        std::remove(pipe.c_str());
        for (const std::string& mode : modes) {
            char port[8];
            EXPECT_EQ(std::fscanf(m_output, "%7s", port), 1);
            urls.push_back(std::string(mode.starts_with("tls") ? "https" : "http") + "://127.0.0.1:" + port + "/");
        }
    }
    ~FaultServers() {
        pclose(m_input);
        std::fclose(m_output);
    }
    FaultServers(const FaultServers&) = delete;

    std::vector<std::string> urls;  ///< one a mode

    std::vector<Counts> counts() {
        std::fputs("counts\n", m_input);
        std::fflush(m_input);
        std::vector<Counts> all(urls.size());
        for (auto& [connections, requests, changes] : all) {
            EXPECT_EQ(std::fscanf(m_output, "%ld%ld%ld", &connections, &requests, &changes), 3);
        }
        return all;
    }

  private:
    std::FILE* m_input;
    std::FILE* m_output;
};
