/// Restores the settings of standard input's terminal when a signal ends or stops the program.
///
/// While an object lives, the program may change the terminal's settings as it likes. A signal that ends the program
/// restores them first, at whatever moment it comes. Signals after which the program goes on are held back until `wait`
/// is called: a stop (Ctrl-Z) restores the settings before the program stops, and Ctrl-C is reported to the caller
/// instead of ending the program. A signal that is ignored when the object is made stays ignored.
///
/// There may be one object at a time, and only the thread that made it may receive signals.
#pragma once

#include <termios.h>

#include <csignal>
#include <string_view>

class QelTerminalSignals {
  public:
    enum class Event {
        kInput,      ///< read(2) returns at once: with bytes, the end of the input, or a failure
        kInterrupt,  ///< SIGINT came, as by Ctrl-C
        kResume,     ///< the program goes on after a stop: it must change the settings again, and show again what it
                     ///< had shown, on the line where the cursor is
        kResize,     ///< the terminal has another size
    };

    QelTerminalSignals();
    QelTerminalSignals(const QelTerminalSignals&) = delete;
    QelTerminalSignals& operator=(const QelTerminalSignals&) = delete;
    /// Restores the settings.
    ~QelTerminalSignals();

    /// Waits for the next event.
    Event wait();

    /// Whether standard input is a terminal at all.
    bool isTerminal() const { return m_isTerminal; }
    /// The settings that are restored.
    const termios& settings() const { return m_settings; }
    /// Whether standard output or standard error is a terminal, which can be written to.
    bool canShow() const { return m_output >= 0; }
    /// Writes to that terminal, if there is one and it takes the text at once.
    void show(std::string_view text) const;
    /// Writes to that terminal, if there is one, and waits until it has taken the text.
    void write(std::string_view text) const;

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
    /// Makes the present settings those that are restored, unless the program is in the background.
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
