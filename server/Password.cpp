#include "server/Password.h"

#include <crypt.h>
#include <openssl/crypto.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <memory>

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

void say(std::string_view text) {
    [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, text.data(), text.size());
}

/// Signals that would leave the terminal without echo come as data while this exists.
class HeldSignals {
  public:
    HeldSignals() {
        sigemptyset(&m_signals);
        for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGALRM, SIGPIPE}) {
            sigaddset(&m_signals, number);
        }
        sigprocmask(SIG_BLOCK, &m_signals, &m_before);
        m_fd = signalfd(-1, &m_signals, SFD_CLOEXEC | SFD_NONBLOCK);
    }
    HeldSignals(const HeldSignals&) = delete;
    HeldSignals& operator=(const HeldSignals&) = delete;
    ~HeldSignals() {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
        sigprocmask(SIG_SETMASK, &m_before, nullptr);
    }
    int fd() const { return m_fd; }
    /// Lets those that have come act as they usually do.
    void deliver() {
        sigprocmask(SIG_SETMASK, &m_before, nullptr);
        sigprocmask(SIG_BLOCK, &m_signals, nullptr);
    }

  private:
    sigset_t m_signals{};
    sigset_t m_before{};
    int m_fd = -1;
};

class SilentTerminal {
  public:
    SilentTerminal() { silence(); }
    SilentTerminal(const SilentTerminal&) = delete;
    SilentTerminal& operator=(const SilentTerminal&) = delete;
    ~SilentTerminal() { restore(); }
    void silence() {
        m_known = tcgetattr(STDIN_FILENO, &m_before) == 0;
        termios silent = m_before;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        silent.c_lflag |= ECHONL;
        if (m_known) {
            tcsetattr(STDIN_FILENO, TCSADRAIN, &silent);
        }
    }
    void restore() const {
        if (m_known) {
            tcsetattr(STDIN_FILENO, TCSADRAIN, &m_before);
        }
    }

  private:
    termios m_before{};
    bool m_known = false;
};

/// Takes one line byte by byte, so that nothing after it is swallowed. False: longer than a password may be, or nothing
/// came before the end of input.
bool readLine(SecretString& line) {
    char byte = 0;
    bool any = false;
    for (;;) {
        const ssize_t got = ::read(STDIN_FILENO, &byte, 1);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return any;
        }
        any = true;
        if (byte == '\n') {
            return true;
        }
        if (!line.append({&byte, 1})) {
            return false;
        }
    }
}

bool promptLine(std::string_view prompt, SecretString& line) {
    HeldSignals signals;
    SilentTerminal terminal;
    say(prompt);
    for (;;) {
        std::array<pollfd, 2> ready{{{STDIN_FILENO, POLLIN, 0}, {signals.fd(), POLLIN, 0}}};
        if (::poll(ready.data(), ready.size(), -1) < 0 && errno != EINTR) {
            return false;
        }
        if ((ready[1].revents & POLLIN) != 0) {
            terminal.restore();
            signals.deliver();
            terminal.silence();
            say(prompt);
        } else if (ready[0].revents != 0) {
            return readLine(line);
        }
    }
}

}  // namespace

bool readNewPassword(std::string_view name, SecretString& password, std::string& problem) {
    const bool terminal = ::isatty(STDIN_FILENO) == 1;
    const bool got = terminal ? promptLine("Password for " + harmless(name) + ": ", password) : readLine(password);
    if (!password.view().empty() && password.view().back() == '\r' && !terminal) {
        password.popBack();
    }
    if (!got || password.view().empty()) {
        problem = "no password was given, or one of more than " + std::to_string(kMaxPasswordBytes) + " bytes";
    } else if (!isCleanUtf8(password.view())) {
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
