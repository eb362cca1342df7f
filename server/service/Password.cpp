#include "server/service/Password.h"

#include <crypt.h>
#include <openssl/crypto.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <system_error>

#include "runtime/SecretBuffer.h"
#include "runtime/qel_hidden.h"
#include "runtime/qel_utf8.h"
#include "server/log/Text.h"

namespace dsessd {

namespace {

/// crypt_r's working memory, which holds the password while it is used.
struct CryptMemory {
    CryptMemory() : data(std::make_unique<crypt_data>()) {}
    CryptMemory(const CryptMemory&) = delete;
    CryptMemory& operator=(const CryptMemory&) = delete;
    ~CryptMemory() { OPENSSL_cleanse(data.get(), sizeof(crypt_data)); }
    std::unique_ptr<crypt_data> data;
};

/// The hash by crypt(3). Empty when it refuses the setting or the password.
std::string crypted(const char* password, const char* setting) {
    CryptMemory memory;
    errno = 0;
    const char* hash = crypt_r(password, setting, memory.data.get());
    if (hash != nullptr && hash[0] != '*') {
        return hash;
    }
    if (errno != EINVAL && errno != ERANGE) {
        throw std::system_error(errno, std::generic_category(), "no hash of a password can be computed");
    }
    return {};
}

}  // namespace

std::string hashPassword(const char* password) {
    std::array<char, CRYPT_GENSALT_OUTPUT_SIZE> setting{};
    if (crypt_gensalt_rn("$y$", 0, nullptr, 0, setting.data(), static_cast<int>(setting.size())) == nullptr) {
        return {};
    }
    return crypted(password, setting.data());
}

bool passwordMatches(const char* password, const std::string& hash) {
    const std::string candidate = crypted(password, hash.c_str());
    return candidate.size() == hash.size() && !hash.empty() &&
           CRYPTO_memcmp(candidate.data(), hash.data(), hash.size()) == 0;
}

namespace {

void say(std::string_view text) {
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
}

/// A line, without echo and after the prompt if from a terminal. Empty when nothing came before the end of input, or
/// more than a password may have.
SecretBuffer readLine(std::string_view prompt, bool terminal) {
    const auto showPrompt = [&] { say(terminal ? prompt : ""); };
    SecretBuffer buffer(kMaxPasswordBytes + 2);  // with the NUL, and a byte more that shows that a line is too long
    std::string_view line;
    const QelHidden result = qel_read_hidden(buffer, line, showPrompt);
    say(terminal ? "\n" : "");
    if (result == QelHidden::kInterrupted) {
        ::raise(SIGINT);
    }
    if (!terminal && line.ends_with('\r')) {
        line.remove_suffix(1);
    }
    buffer.resize(line.size() > kMaxPasswordBytes ? 0 : line.size());
    return buffer;
}

}  // namespace

std::string hashOfNewPassword(std::string_view name) {
    const bool terminal = ::isatty(STDIN_FILENO) == 1;
    SecretBuffer password = readLine("Password for " + harmless(name) + ": ", terminal);
    if (password.empty()) {
        throw std::runtime_error("no password was given, or one of more than " + std::to_string(kMaxPasswordBytes) +
                                 " bytes");
    }
    const auto isStart = [](char byte) { return (byte & 0xC0) != 0x80; };
    if (std::count_if(password.begin(), password.end(), isStart) < kMinPasswordCharacters) {
        throw std::runtime_error("a password needs at least " + std::to_string(kMinPasswordCharacters) + " characters");
    }
    if (!qel_utf8_is_text({password.data(), password.size()})) {
        throw std::runtime_error("the password is not valid UTF-8");
    }
    if (terminal && readLine("Once more: ", terminal) != password) {
        throw std::runtime_error("the two passwords differ");
    }
    password.push_back('\0');
    std::string hash = hashPassword(password.data());
    if (hash.empty()) {
        throw std::runtime_error("the system's crypt library makes no yescrypt hash");
    }
    return hash;
}

}  // namespace dsessd
