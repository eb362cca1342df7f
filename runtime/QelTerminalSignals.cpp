#include "runtime/QelTerminalSignals.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>

#include "runtime/qel_io.h"

namespace {

/// The signals that do not end the program. They are blocked except while `wait` waits.
constexpr std::array kDeferred = {SIGINT, SIGTSTP, SIGCONT, SIGWINCH};
/// Signals that get no handler. The first two cannot have one, and the others neither end the program nor need the
/// settings restored: SIGTTIN and SIGTTOU stop a program that has no terminal to restore.
constexpr std::array kLeftAlone = {SIGKILL, SIGSTOP, SIGCHLD, SIGURG, SIGTTIN, SIGTTOU};

QelTerminalSignals* g_active = nullptr;   // the handlers look at it; set before they are installed
volatile std::sig_atomic_t g_came[NSIG];  // which of kDeferred came since `wait` looked; the handlers write it

template <std::size_t count>
bool isOneOf(const std::array<int, count>& signals, int signal) {
    return std::find(signals.begin(), signals.end(), signal) != signals.end();
}

sigset_t setOf(int signal) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal);
    return set;
}

bool isPending(int signal) {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, signal) != 0;
}

}  // namespace

QelTerminalSignals::QelTerminalSignals()
    : m_isTerminal(tcgetattr(STDIN_FILENO, &m_settings) == 0),
      m_output(isatty(STDOUT_FILENO) != 0   ? STDOUT_FILENO
               : isatty(STDERR_FILENO) != 0 ? STDERR_FILENO
                                            : -1) {
    assert(g_active == nullptr);
    sigset_t deferred;
    sigemptyset(&deferred);
    for (const int signal : kDeferred) {
        sigaddset(&deferred, signal);
        g_came[signal] = 0;
    }
    sigprocmask(SIG_BLOCK, &deferred, &m_mask);
    g_active = this;
    for (int signal = 1; signal < NSIG; ++signal) {
        // Some of the real-time signals are the C library's own and refused.
        if (!isOneOf(kLeftAlone, signal) && sigaction(signal, nullptr, &m_actions[signal]) == 0) {
            install(signal);
        }
    }
    if (isInBackground()) {
        awaitForeground();
        readSettings();
    }
}

QelTerminalSignals::~QelTerminalSignals() {
    if (m_isTerminal && !isInBackground()) {
        tcsetattr(STDIN_FILENO, TCSANOW, &m_settings);
    }
    for (int signal = 1; signal < NSIG; ++signal) {
        if (!isOneOf(kLeftAlone, signal)) {
            sigaction(signal, &m_actions[signal], nullptr);
        }
    }
    g_active = nullptr;
    sigprocmask(SIG_SETMASK, &m_mask, nullptr);
}

QelTerminalSignals::Event QelTerminalSignals::wait() {
    for (;;) {
        pollfd input{STDIN_FILENO, POLLIN, 0};
        // One of the signals may already be noted, so that ppoll would wait for nothing.
        const timespec noTime{};
        const bool hasCome =
            std::any_of(kDeferred.begin(), kDeferred.end(), [](int signal) { return g_came[signal] != 0; });
        const int ready = ppoll(&input, 1, hasCome ? &noTime : nullptr, &m_mask);
        const bool canRead = ready > 0 || (ready < 0 && errno != EINTR);
        letPendingIn();
        if (takeCame(SIGTSTP)) {
            stop();
            g_came[SIGCONT] = 1;
        }
        const bool resumed = takeCame(SIGCONT) && m_isTerminal;
        if (resumed) {
            resume();
        }
        if (takeCame(SIGINT)) {
            return Event::kInterrupt;
        }
        if (resumed) {
            return Event::kResume;
        }
        if (takeCame(SIGWINCH)) {
            return Event::kResize;
        }
        if (canRead) {
            return Event::kInput;
        }
    }
}

// In the background the settings belong to whoever has the terminal.
void QelTerminalSignals::giveBack() const {
    if (m_isTerminal && !isInBackground()) {
        tcsetattr(STDIN_FILENO, TCSANOW, &m_settings);
        // A shell's prompt may come next and needs a fresh line.
        show("\n");
    }
}

void QelTerminalSignals::show(std::string_view text) const {
    pollfd output{m_output, POLLOUT, 0};
    if (poll(&output, 1, 0) > 0) {
        [[maybe_unused]] const ssize_t written = ::write(m_output, text.data(), text.size());
    }
}

void QelTerminalSignals::write(std::string_view text) const {
    if (canShow()) {
        static_cast<void>(qel_write(m_output, text));  // if it fails, the terminal is gone, and `wait` will see that
    }
}

void QelTerminalSignals::stop() {
    giveBack();
    sigaction(SIGTSTP, &m_actions[SIGTSTP], nullptr);
    raise(SIGTSTP);
    const sigset_t stopSignal = setOf(SIGTSTP);
    sigprocmask(SIG_UNBLOCK, &stopSignal, nullptr);
    sigprocmask(SIG_BLOCK, &stopSignal, nullptr);
    install(SIGTSTP);
    letPendingIn();
    readSettings();
}

void QelTerminalSignals::resume() {
    awaitForeground();
    letPendingIn();
    takeCame(SIGCONT);
    show("\r");
}

// The terminal itself would stop the program at the next read. But while a SIGINT waits, that would happen again and
// again.
void QelTerminalSignals::awaitForeground() {
    while (isInBackground() && g_came[SIGINT] == 0) {
        raise(SIGTTIN);
        if (!isPending(SIGCONT)) {
            return;  // the process group is orphaned, so SIGTTIN did nothing and nobody would send SIGCONT
        }
        letPendingIn();
    }
}

void QelTerminalSignals::readSettings() {
    termios settings{};
    if (m_isTerminal && !isInBackground() && tcgetattr(STDIN_FILENO, &settings) == 0) {
        sigset_t all;
        sigset_t before;
        sigfillset(&all);
        sigprocmask(SIG_BLOCK, &all, &before);
        m_settings = settings;
        sigprocmask(SIG_SETMASK, &before, nullptr);
    }
}

void QelTerminalSignals::letPendingIn() const {
    // ppoll in `wait` does not take a signal when input is ready.
    const timespec noTime{};
    static_cast<void>(ppoll(nullptr, 0, &noTime, &m_mask));
}

bool QelTerminalSignals::isInBackground() const {
    const pid_t foreground = m_isTerminal ? tcgetpgrp(STDIN_FILENO) : 0;
    return foreground > 0 && foreground != getpgrp();
}

bool QelTerminalSignals::takeCame(int signal) {
    const bool came = g_came[signal] != 0;
    g_came[signal] = 0;
    return came;
}

void QelTerminalSignals::install(int signal) {
    if (m_actions[signal].sa_handler == SIG_IGN) {
        return;
    }
    struct sigaction action {};
    action.sa_handler = isOneOf(kDeferred, signal) ? remember : end;
    action.sa_flags = SA_ONSTACK;
    sigfillset(&action.sa_mask);
    sigaction(signal, &action, nullptr);
}

void QelTerminalSignals::remember(int signal) {
    g_came[signal] = 1;
}

// The signal is blocked while its handler runs, so the one that is raised takes its usual course when this returns.
void QelTerminalSignals::end(int signal) {
    const int error = errno;
    g_active->giveBack();
    sigaction(signal, &g_active->m_actions[signal], nullptr);
    raise(signal);
    errno = error;
}
