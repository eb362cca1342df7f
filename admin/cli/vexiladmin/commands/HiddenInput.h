/// Standard input with the terminal's echo off, for as long as the object lives.
///
/// No signal may leave the echo off, and none may be lost. So signals are blocked but for the waits for input; one that
/// comes during a wait gives the terminal back, takes its usual course, and, if the program is still there, the
/// terminal is taken again and the prompt shown again. A stopped program that continues in the background stops once
/// more instead: the terminal is not its own until it is brought to the foreground.
#pragma once

#include <termios.h>
#include <csignal>
#include <cstddef>

class HiddenInput {
  public:
    /// `showPrompt` is called when the prompt must be shown again.
    explicit HiddenInput(void (*showPrompt)());
    HiddenInput(const HiddenInput&) = delete;
    HiddenInput& operator=(const HiddenInput&) = delete;
    ~HiddenInput();

    /// Reads a line without its line feed. What does not fit `size` - 1 bytes is dropped, up to the line's end. Returns
    /// false, with the buffer all zero, when the input ended or failed before there was anything.
    bool readLine(char* buffer, std::size_t size);

    static constexpr int kSignals[] = {SIGINT,  SIGTERM, SIGHUP,  SIGQUIT, SIGALRM,
                                       SIGPIPE, SIGUSR1, SIGUSR2, SIGTSTP, SIGCONT};
    static constexpr std::size_t kSignalCount = sizeof(kSignals) / sizeof(kSignals[0]);

  private:
    bool endsLine(int byte) const;
    int readByte();
    void handleSignals();
    void takeCourse(std::size_t signal);
    /// Whether the terminal belongs to another process group, such as the shell's.
    bool isInBackground() const;
    /// In the background, stops the program by this signal. Returns whether it did, and has been continued.
    bool stoppedInBackground(int signal) const;
    void echoOff();
    void echoOn();
    void install(std::size_t signal);

    void (*m_showPrompt)();
    bool m_isTerminal;
    bool m_echoIsOff = false;
    termios m_savedTerminal;
    sigset_t m_savedMask;
    struct sigaction m_savedActions[kSignalCount];
};
