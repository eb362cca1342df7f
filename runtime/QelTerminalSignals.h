/// Keeps signals from leaving the terminal of standard input as the program had changed it.
///
/// While an object lives, the program may change the terminal's settings as it likes: a signal that ends the program
/// first gets them put back as they were, at whatever moment it comes. Signals after which the program goes on wait for
/// the next call of `wait`: a stop gives the terminal back until the program has it again, an interrupt is reported to
/// the caller instead of ending the program. What is ignored when the object is made stays ignored.
///
/// One object at a time, in a program whose signals all go to the thread that made it.
#pragma once

#include <termios.h>

#include <csignal>
#include <string_view>

class QelTerminalSignals {
  public:
    enum class Event {
        kInput,      ///< read(2) has something to give: bytes, the end of the input, or a failure
        kInterrupt,  ///< SIGINT came, as by Ctrl-C
        kResume,     ///< the program has the terminal again, with settings of whoever had it meanwhile: what it had
                     ///< changed must be changed anew, and what was shown be shown anew, on the line it is on
        kResize,     ///< the terminal has another size
    };

    QelTerminalSignals();
    QelTerminalSignals(const QelTerminalSignals&) = delete;
    QelTerminalSignals& operator=(const QelTerminalSignals&) = delete;
    /// Puts the settings back.
    ~QelTerminalSignals();

    Event wait();

    /// Whether standard input is a terminal at all.
    bool isTerminal() const { return m_isTerminal; }
    /// The settings that are put back.
    const termios& settings() const { return m_settings; }
    /// Writes to the terminal unless neither standard output nor standard error is one, or it takes nothing now.
    void show(std::string_view text) const;
    /// The same, but waits until the terminal takes it.
    void write(std::string_view text) const;
    bool canShow() const { return m_output >= 0; }

  private:
    static void remember(int signal);
    static void end(int signal);
    void install(int signal);
    bool takeCame(int signal);
    void letPendingIn() const;
    /// Whether the terminal belongs to another process group, such as the shell's.
    bool isInBackground() const;
    /// Stops the program as long as it is in the background and was not interrupted.
    void awaitForeground();
    /// Takes the settings for those that are put back, if they are the program's to take.
    void readSettings();
    void giveBack() const;
    void stop();
    void resume();

    termios m_settings{};
    bool m_isTerminal;
    int m_output;
    sigset_t m_mask{};
    struct sigaction m_actions[NSIG] {};
};
