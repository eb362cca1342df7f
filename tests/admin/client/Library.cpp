#include "tests/admin/client/Library.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <fstream>

std::vector<std::string>& traced() {
    static std::vector<std::string> lines;
    return lines;
}

void recordTrace(std::int32_t level, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    char text[8192];
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    traced().push_back(std::to_string(level) + " " + text);
}

bool wasTraced(const std::string& fragment) {
    for (const std::string& line : traced()) {
        if (line.find(fragment) != std::string::npos) {
            return true;
        }
    }
    return false;
}

namespace {

olm_dsess_admin_mv_string_t listOf(std::vector<std::string>& texts, std::vector<char*>& pointers) {
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    return {static_cast<std::int32_t>(pointers.size()), pointers.empty() ? nullptr : pointers.data()};
}

char* orNull(std::string& text) {
    return text.empty() ? nullptr : text.data();
}

class Stopwatch {
  public:
    explicit Stopwatch(double& seconds) : m_seconds(seconds) {}
    ~Stopwatch() { m_seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count(); }

  private:
    double& m_seconds;
    std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};

}  // namespace

Library::Library(std::vector<std::string> urls, std::int32_t timeout, TlsSettings tls) {
    std::vector<char*> urlPointers;
    std::vector<char*> namePointers;
    const olm_dsess_admin_mv_string_t list = listOf(urls, urlPointers);
    const olm_dsess_admin_ssl_info_t settings{listOf(tls.serverNames, namePointers), orNull(tls.keyFile),
                                              orNull(tls.stash), orNull(tls.label), tls.fips ? 1 : 0};
    traced().clear();
    m_context = this;
    m_initialized = olm_dsess_admin_initialize(timeout, &list, &settings, recordTrace, &m_context);
    if (m_initialized == 0) {
        olm_dsess_admin_create_handle(m_context, &handle);
    }
}

Library::~Library() {
    olm_dsess_admin_release_handle(m_context, &handle);
    olm_dsess_admin_shutdown(&m_context);
}

std::uint32_t Library::read() {
    const Stopwatch watch(m_seconds);
    std::int32_t count = 0;
    olm_dsess_admin_realm_t* realms = nullptr;
    olm_dsess_admin_cluster_t cluster{};
    const std::uint32_t status = olm_dsess_admin_get_cluster_info(handle, &kRoot, &count, &realms, &cluster);
    if (status == 0) {
        release(OLM_DSESS_ADMIN_FREE_REALMS, count, &realms);
        release(OLM_DSESS_ADMIN_FREE_CLUSTER, 1, &cluster);
    }
    return status;
}

std::uint32_t Library::change() {
    const Stopwatch watch(m_seconds);
    olm_dsess_admin_cluster_t cluster{};
    const std::uint32_t status = olm_dsess_admin_generate_new_key(handle, &kRoot, &cluster);
    if (status == 0) {
        release(OLM_DSESS_ADMIN_FREE_CLUSTER, 1, &cluster);
    }
    return status;
}

UserQuery::UserQuery(const char* user)
    : olm_dsess_admin_session_query_t{"east", "user", "user name", {1, values}, 0, 0},
      values{const_cast<char*>(user), nullptr} {}

void release(std::int32_t kind, std::int32_t count, void* result) {
    const olm_dsess_admin_free_info_t request{kind, count, result};
    olm_dsess_admin_free(&request);
}

std::string answerFile(const std::string& text) {
    std::string path = "answer-" + std::to_string(getpid()) + ".json";
    std::ofstream(path, std::ios::binary) << text;
    return path;
}
