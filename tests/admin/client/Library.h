/// The library under test, through its C interface.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "admin/client-interface/olm_dsess_admin.h"

/// How late a deadline may be met. The sanitizers slow everything down.
#if defined(__SANITIZE_ADDRESS__)
inline constexpr double kLateness = 1.0;
#else
inline constexpr double kLateness = 0.2;
#endif

/// Lines that the library traced in this test, each "LEVEL text\n".
std::vector<std::string>& traced();
void recordTrace(std::int32_t level, const char* format, ...) __attribute__((format(printf, 2, 3)));
bool wasTraced(const std::string& fragment);

/// Settings of a connection, as the configuration would give them; empty texts are null pointers.
struct TlsSettings {
    std::string keyFile;
    std::string stash;
    std::string label;
    std::vector<std::string> serverNames;
    bool fips = false;
};

/// A context with a handle; both are gone at the end of scope.
class Library {
  public:
    explicit Library(std::vector<std::string> urls, std::int32_t timeout = 2, TlsSettings tls = {});
    ~Library();
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    std::uint32_t initialized() const { return m_initialized; }
    void* handle = nullptr;

    /// A request that reads, with its result released; and one that changes something.
    std::uint32_t read();
    std::uint32_t change();
    /// How long the last of these took, in seconds.
    double seconds() const { return m_seconds; }

  private:
    std::uint32_t m_initialized;
    double m_seconds = 0;
    void* m_context = nullptr;
};

inline constexpr olm_dsess_admin_sec_info_t kRoot{"root", nullptr, "login-1", "SECRET"};

/// A query of sessions by user.
struct UserQuery : olm_dsess_admin_session_query_t {
    explicit UserQuery(const char* user);
    char* values[2];
};

/// Releases a result through olm_dsess_admin_free.
void release(std::int32_t kind, std::int32_t count, void* result);

/// Writes a file for a fault server's mode answer=FILE, and names it.
std::string answerFile(const std::string& text);
