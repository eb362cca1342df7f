#include "server/service/Authenticator.h"

#include <openssl/core_names.h>
#include <openssl/params.h>

#include <cstring>
#include <new>
#include <stdexcept>

#include "runtime/qel_random.h"
#include "server/service/Password.h"

namespace dsessd {

Authenticator::Authenticator() : Authenticator(Limits{}) {}

Authenticator::Authenticator(const Limits& limits) : m_limits(limits), m_dummyHash(hashPassword("")) {
    if (m_dummyHash.empty()) {
        throw std::runtime_error("no yescrypt in the system's crypt library");
    }
}

MacContextPtr Authenticator::newMac() {
    Digest key{};
    if (!qel_get_random_bytes(key.data(), key.size())) {
        throw std::runtime_error("no random bytes");
    }
    const MacPtr hmac(EVP_MAC_fetch(nullptr, "HMAC", nullptr));
    MacContextPtr mac(EVP_MAC_CTX_new(hmac.get()));
    std::string digest = "SHA256";
    const std::array<OSSL_PARAM, 2> parameters{
        OSSL_PARAM_construct_utf8_string(OSSL_MAC_PARAM_DIGEST, digest.data(), 0), OSSL_PARAM_construct_end()};
    if (mac == nullptr || EVP_MAC_init(mac.get(), key.data(), key.size(), parameters.data()) != 1) {
        throw std::bad_alloc();
    }
    return mac;
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
    const MacContextPtr mac(EVP_MAC_CTX_dup(m_mac.get()));
    bool works = mac != nullptr;
    for (const std::string_view part : parts) {
        const unsigned char end = '\0';
        works = works &&
                EVP_MAC_update(mac.get(), reinterpret_cast<const unsigned char*>(part.data()), part.size()) == 1 &&
                EVP_MAC_update(mac.get(), &end, 1) == 1;
    }
    Digest digest{};
    std::size_t length = 0;
    if (!works || EVP_MAC_final(mac.get(), digest.data(), &length, digest.size()) != 1) {
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
