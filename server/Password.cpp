#include "server/Password.h"

#include <crypt.h>
#include <openssl/crypto.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <memory>

#include "runtime/qel_hidden.h"
#include "runtime/qel_utf8.h"

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

std::string crypted(const char* password, const char* setting) {
    CryptMemory memory;
    const char* hash = crypt_r(password, setting, memory.data.get());
    return hash == nullptr || hash[0] == '*' ? std::string() : std::string(hash);
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

/// Room for the longest password, and for one byte more, which shows that a line is too long.
using PasswordLine = std::array<char, kMaxPasswordBytes + 2>;

void say(std::string_view text) {
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
}

/// Reads a line, without echo and after the prompt if from a terminal. False: longer than a password may be, or nothing
/// came before the end of input.
bool promptLine(std::string_view prompt, SecretString& password) {
    const bool terminal = ::isatty(STDIN_FILENO) == 1;
    const auto showPrompt = [&] { say(terminal ? prompt : ""); };
    showPrompt();
    PasswordLine buffer;
    std::string_view line;
    const QelHidden result = qel_read_hidden(buffer, line, showPrompt);
    say(terminal ? "\n" : "");
    if (result == QelHidden::kInterrupted) {
        ::raise(SIGINT);
    }
    const bool got = result == QelHidden::kLine && password.append(line);
    OPENSSL_cleanse(buffer.data(), buffer.size());
    return got;
}

}  // namespace

bool readNewPassword(std::string_view name, SecretString& password, std::string& problem) {
    const bool terminal = ::isatty(STDIN_FILENO) == 1;
    const bool got = promptLine("Password for " + harmless(name) + ": ", password);
    if (!password.view().empty() && password.view().back() == '\r' && !terminal) {
        password.popBack();
    }
    if (!got || password.view().empty()) {
        problem = "no password was given, or one of more than " + std::to_string(kMaxPasswordBytes) + " bytes";
    } else if (!qel_utf8_is_text(password.view())) {
        problem = "the password is not valid UTF-8";
    }
    if (!problem.empty() || !terminal) {
        return problem.empty();
    }
    SecretString again(kMaxPasswordBytes);
    if (!promptLine("Once more: ", again) || again.view() != password.view()) {
        problem = "the two passwords differ";
    }
    return problem.empty();
}

}  // namespace dsessd
