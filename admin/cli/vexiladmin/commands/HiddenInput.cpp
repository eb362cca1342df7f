#include "admin/cli/vexiladmin/commands/HiddenInput.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

volatile std::sig_atomic_t g_caught[HiddenInput::kSignalCount];

void remember(int signal) {
    for (std::size_t i = 0; i < HiddenInput::kSignalCount; ++i) {
        if (HiddenInput::kSignals[i] == signal) {
            g_caught[i] = 1;
        }
    }
}

sigset_t setOf(const int* signals, std::size_t count) {
    sigset_t set;
    sigemptyset(&set);
    for (std::size_t i = 0; i < count; ++i) {
        sigaddset(&set, signals[i]);
    }
    return set;
}

bool isPending(int signal) {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, signal) != 0;
}

}  // namespace

HiddenInput::HiddenInput(void (*showPrompt)()) : m_showPrompt(showPrompt) {
    const sigset_t blocked = setOf(kSignals, kSignalCount);
    sigprocmask(SIG_BLOCK, &blocked, &m_savedMask);
    for (std::size_t i = 0; i < kSignalCount; ++i) {
        g_caught[i] = 0;
        sigaction(kSignals[i], nullptr, &m_savedActions[i]);
        install(i);
    }
    m_isTerminal = tcgetattr(STDIN_FILENO, &m_savedTerminal) == 0;
    echoOff();
}

HiddenInput::~HiddenInput() {
    echoOn();
    for (std::size_t i = 0; i < kSignalCount; ++i) {
        sigaction(kSignals[i], &m_savedActions[i], nullptr);
    }
    sigprocmask(SIG_SETMASK, &m_savedMask, nullptr);
}

bool HiddenInput::readLine(char* buffer, std::size_t size) {
    std::memset(buffer, 0, size);
    std::clearerr(stdin);
    std::size_t length = 0;
    int byte = readByte();
    if (byte == EOF) {
        return false;
    }
    for (; byte != EOF && !endsLine(byte); byte = readByte()) {
        if (length + 1 < size) {
            buffer[length++] = static_cast<char>(byte);
        }
    }
    if (std::ferror(stdin) != 0) {
        explicit_bzero(buffer, size);
        return false;
    }
    return true;
}

// The line editor has the terminal turn line feeds into carriage returns, and so they stand in what was typed ahead.
bool HiddenInput::endsLine(int byte) const {
    return byte == '\n' || (m_isTerminal && byte == '\r');
}

int HiddenInput::readByte() {
    for (;;) {
        pollfd input{STDIN_FILENO, POLLIN, 0};
        const int ready = ppoll(&input, 1, nullptr, &m_savedMask);
        const int error = errno;
        // Input that is ready keeps signals waiting.
        const timespec noTime{};
        ppoll(nullptr, 0, &noTime, &m_savedMask);
        handleSignals();
        if (ready > 0 && !stoppedInBackground(SIGTTIN)) {
            return std::getc(stdin);
        }
        if (ready < 0 && error != EINTR) {
            return EOF;
        }
    }
}

void HiddenInput::handleSignals() {
    bool interrupted = false;
    for (std::size_t i = 0; i < kSignalCount; ++i) {
        if (g_caught[i] == 0) {
            continue;
        }
        g_caught[i] = 0;
        interrupted = true;
        if (kSignals[i] != SIGCONT) {
            takeCourse(i);
        }
    }
    // A SIGCONT that still waits comes here next, after any other that came while the program was stopped: a stopped
    // program that is killed must not first want its terminal back.
    if (interrupted && m_isTerminal && !isPending(SIGCONT) && !stoppedInBackground(SIGTTOU)) {
        echoOff();
        m_showPrompt();
    }
}

void HiddenInput::takeCourse(std::size_t signal) {
    if (m_echoIsOff && !isInBackground()) {
        echoOn();
        // Whatever comes next, a shell's prompt or the one here, begins on a fresh line.
        std::fputs("\n", stdout);
        std::fflush(stdout);
    }
    sigaction(kSignals[signal], &m_savedActions[signal], nullptr);
    const sigset_t single = setOf(&kSignals[signal], 1);
    raise(kSignals[signal]);
    sigprocmask(SIG_UNBLOCK, &single, nullptr);
    sigprocmask(SIG_BLOCK, &single, nullptr);
    install(signal);
}

bool HiddenInput::isInBackground() const {
    const pid_t foreground = m_isTerminal ? tcgetpgrp(STDIN_FILENO) : 0;
    return foreground > 0 && foreground != getpgrp();
}

// The terminal would send these signals too, but then again and again while others stay blocked.
bool HiddenInput::stoppedInBackground(int signal) const {
    if (!isInBackground()) {
        return false;
    }
    raise(signal);
    return isPending(SIGCONT);
}

void HiddenInput::install(std::size_t signal) {
    // What the caller ignores stays ignored.
    if (m_savedActions[signal].sa_handler == SIG_IGN) {
        return;
    }
    struct sigaction action {};
    action.sa_handler = remember;
    sigfillset(&action.sa_mask);
    sigaction(kSignals[signal], &action, nullptr);
}

void HiddenInput::echoOff() {
    if (m_isTerminal) {
        termios terminal = m_savedTerminal;
        terminal.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL);
        m_echoIsOff = tcsetattr(STDIN_FILENO, TCSANOW, &terminal) == 0;
    }
}

void HiddenInput::echoOn() {
    if (m_echoIsOff) {
        tcsetattr(STDIN_FILENO, TCSANOW, &m_savedTerminal);
        m_echoIsOff = false;
    }
}
