#include "server/Authenticator.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <cstring>
#include <stdexcept>

#include "server/Password.h"

namespace dsessd {

Authenticator::Authenticator() : Authenticator(Limits{}) {}

Authenticator::Authenticator(const Limits& limits) : limits_(limits), dummyHash_(hashPassword("")) {
    if (RAND_bytes(key_.data(), static_cast<int>(key_.size())) != 1 || dummyHash_.empty())
        throw std::runtime_error("no random bytes, or no yescrypt in the system's crypt library");
}

Authenticator::Verdict Authenticator::verify(Store& store, const Credentials& credentials) {
    const auto administrator = store.administrator(credentials.user);
    const bool possible =
        administrator && credentials.password != nullptr && std::strlen(credentials.password) <= kMaxPasswordBytes;
    Digest digest{};
    if (possible) {
        digest = digestOf(credentials, administrator->passwordHash);
        if (remembers(digest))
            return {Outcome::remembered, administrator->role};
    }
    const auto matched =
        possible ? matches(credentials.password, administrator->passwordHash) : matches("-", dummyHash_);
    if (!matched)
        return {Outcome::busy, {}};
    if (!possible || !*matched)
        return {Outcome::refused, {}};
    remember(digest);
    return {Outcome::verified, administrator->role};
}

std::uint64_t Authenticator::hashCount() const {
    const std::lock_guard lock(mutex_);
    return hashCount_;
}

Authenticator::Digest Authenticator::digestOf(const Credentials& credentials, std::string_view passwordHash) const {
    const std::array<std::string_view, 4> parts{credentials.user, credentials.loginId, credentials.password,
                                                passwordHash};
    std::size_t room = 0;
    for (const std::string_view part : parts)
        room += part.size() + 1;
    SecretString joined(room);
    for (const std::string_view part : parts) {
        joined.append(part);
        joined.append({"\0", 1});
    }
    Digest digest{};
    unsigned length = 0;
    HMAC(EVP_sha256(), key_.data(), static_cast<int>(key_.size()),
         reinterpret_cast<const unsigned char*>(joined.view().data()), joined.view().size(), digest.data(), &length);
    return digest;
}

bool Authenticator::remembers(const Digest& digest) {
    const std::lock_guard lock(mutex_);
    const auto found = expiries_.find(digest);
    return found != expiries_.end() && Clock::now() < found->second;
}

void Authenticator::remember(const Digest& digest) {
    const std::lock_guard lock(mutex_);
    if (!expiries_.insert_or_assign(digest, Clock::now() + limits_.rememberFor).second)
        return;
    oldestFirst_.push_back(digest);
    if (oldestFirst_.size() > limits_.remembered) {
        expiries_.erase(oldestFirst_.front());
        oldestFirst_.pop_front();
    }
}

std::optional<bool> Authenticator::matches(const char* password, const std::string& hash) {
    {
        std::unique_lock lock(mutex_);
        if (hashing_ == limits_.hashesAtOnce && waiting_ == limits_.waiting)
            return std::nullopt;
        ++waiting_;
        hashDone_.wait(lock, [&] { return hashing_ < limits_.hashesAtOnce; });
        --waiting_;
        ++hashing_;
        ++hashCount_;
    }
    const bool matched = passwordMatches(password, hash);
    {
        const std::lock_guard lock(mutex_);
        --hashing_;
    }
    hashDone_.notify_one();
    return matched;
}

}  // namespace dsessd
