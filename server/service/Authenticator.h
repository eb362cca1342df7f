/// Who may ask: the passwords of administrators.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "runtime/ThreadAnnotations.h"
#include "runtime/openssl_ptr.h"
#include "server/service/Caller.h"
#include "server/store/Store.h"

namespace dsessd {

/// Verifies administrators' passwords.
///
/// A hash is made to be slow, so what was verified is remembered for a while: by a keyed digest of user, login
/// identifier, password and the stored hash, hence only for requests that bring all of them again, and no longer than
/// the administrator stays as he was. An unknown name costs as much as a wrong password.
class Authenticator {
  public:
    using Clock = std::chrono::steady_clock;

    struct Limits {
        std::size_t remembered = 1024;
        Clock::duration rememberFor = std::chrono::minutes(5);
    };

    enum class Outcome {
        kVerified,    ///< by its password, just now
        kRemembered,  ///< verified a while ago
        kRefused,
    };
    struct Verdict {
        Outcome outcome = Outcome::kRefused;
        Role role = Role::kRead;
    };

    Authenticator();
    explicit Authenticator(const Limits& limits);

    // Safe to call from several threads, each with a store of its own. What cannot be computed is no refusal: they
    // throw std::bad_alloc or std::system_error then, and Failure.
    /// What is known without a hash; nothing: it takes one.
    [[nodiscard]] std::optional<Verdict> recall(Store& store, const Credentials& credentials);
    /// Computes a hash, unless it is remembered by now.
    [[nodiscard]] Verdict verify(Store& store, const Credentials& credentials);

    /// How many hashes were computed since the start.
    std::uint64_t hashCount() const { return m_hashCount; }

  private:
    using Digest = std::array<unsigned char, 32>;

    static bool isPossible(const std::optional<Administrator>& administrator, const Credentials& credentials);
    Digest digestOf(const Credentials& credentials, std::string_view passwordHash) const;
    static MacContextPtr newMac();
    bool remembers(const Digest& digest);
    void remember(const Digest& digest);

    const Limits m_limits;
    /// HMAC-SHA-256 that has its random key already. Each digest is made by a copy of it, since to set the key anew
    /// would take as long as the digest itself.
    const MacContextPtr m_mac = newMac();
    /// What the password given for an unknown name is compared with.
    std::string m_dummyHash;

    std::atomic<std::uint64_t> m_hashCount = 0;
    Mutex m_mutex;
    std::map<Digest, Clock::time_point> m_expiries GUARDED_BY(m_mutex);
    std::deque<Digest> m_oldestFirst GUARDED_BY(m_mutex);
};

}  // namespace dsessd
