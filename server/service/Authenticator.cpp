#include "server/service/Authenticator.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <cstring>
#include <new>
#include <stdexcept>

#include "runtime/SecretBuffer.h"
#include "runtime/qel_random.h"
#include "server/service/Password.h"

namespace dsessd {

Authenticator::Authenticator() : Authenticator(Limits{}) {}

Authenticator::Authenticator(const Limits& limits) : m_limits(limits), m_dummyHash(hashPassword("")) {
    if (!qel_get_random_bytes(m_key.data(), m_key.size()) || m_dummyHash.empty()) {
        throw std::runtime_error("no random bytes, or no yescrypt in the system's crypt library");
    }
    // OpenSSL sets itself up at its first use. Where memory lacks then it fails ever after: better now, at the start.
    static_cast<void>(digestOf({"", "", ""}, ""));
}

bool Authenticator::isPossible(const std::optional<Administrator>& administrator, const Credentials& credentials) {
    return administrator && credentials.password != nullptr && std::strlen(credentials.password) <= kMaxPasswordBytes;
}

std::optional<Authenticator::Verdict> Authenticator::recall(Store& store, const Credentials& credentials) {
    const auto administrator = store.administrator(credentials.user);
    if (!isPossible(administrator, credentials) || !remembers(digestOf(credentials, administrator->passwordHash))) {
        return std::nullopt;
    }
    return Verdict{Outcome::kRemembered, administrator->role};
}

Authenticator::Verdict Authenticator::verify(Store& store, const Credentials& credentials) {
    const auto administrator = store.administrator(credentials.user);
    if (!isPossible(administrator, credentials)) {
        ++m_hashCount;
        static_cast<void>(passwordMatches("-", m_dummyHash));
        return {Outcome::kRefused, {}};
    }
    const Digest digest = digestOf(credentials, administrator->passwordHash);
    if (remembers(digest)) {
        return {Outcome::kRemembered, administrator->role};
    }
    ++m_hashCount;
    if (!passwordMatches(credentials.password, administrator->passwordHash)) {
        return {Outcome::kRefused, {}};
    }
    remember(digest);
    return {Outcome::kVerified, administrator->role};
}

Authenticator::Digest Authenticator::digestOf(const Credentials& credentials, std::string_view passwordHash) const {
    const std::array<std::string_view, 4> parts{credentials.user, credentials.loginId, credentials.password,
                                                passwordHash};
    SecretBuffer joined;
    for (const std::string_view part : parts) {
        joined.insert(joined.end(), part.begin(), part.end());
        joined.push_back('\0');
    }
    Digest digest{};
    unsigned length = 0;
    if (HMAC(EVP_sha256(), m_key.data(), static_cast<int>(m_key.size()),
             reinterpret_cast<const unsigned char*>(joined.data()), joined.size(), digest.data(), &length) == nullptr) {
        throw std::bad_alloc();
    }
    return digest;
}

bool Authenticator::remembers(const Digest& digest) {
    const MutexLock lock(m_mutex);
    const auto found = m_expiries.find(digest);
    return found != m_expiries.end() && Clock::now() < found->second;
}

void Authenticator::remember(const Digest& digest) {
    const MutexLock lock(m_mutex);
    const auto expiry = Clock::now() + m_limits.rememberFor;
    if (const auto found = m_expiries.find(digest); found != m_expiries.end()) {
        found->second = expiry;
        return;
    }
    m_oldestFirst.push_back(digest);  // first: what is remembered without it would stay for ever
    m_expiries.emplace(digest, expiry);
    if (m_oldestFirst.size() > m_limits.remembered) {
        m_expiries.erase(m_oldestFirst.front());
        m_oldestFirst.pop_front();
    }
}

}  // namespace dsessd
