/// Handles the signals that end a command or the program (SIGINT, which is Ctrl-C, SIGTERM, SIGHUP), so that no
/// finished result is lost.
///
/// While an object lives, the first signal that comes while a command runs makes the client library end its wait for a
/// server, so that the command can show what became of it. Then the program ends, by that signal; but at the prompt
/// after Ctrl-C the prompt comes back. Any other signal ends the program at once: its handler writes out the finished
/// results and a message that a signal ended the run. The library's wait is ended by olm_dsess_admin_interrupt; with a
/// library that lacks it, every signal ends the program at once. A signal that is ignored when the object is made stays
/// ignored.
#pragma once

#include <array>
#include <csignal>

class TarnAdminInterrupt {
  public:
    enum class Place { kRun, kPrompt };

    explicit TarnAdminInterrupt(Place place);
    TarnAdminInterrupt(const TarnAdminInterrupt&) = delete;
    TarnAdminInterrupt& operator=(const TarnAdminInterrupt&) = delete;
    ~TarnAdminInterrupt();

    /// While an object lives, a command runs, or with `false` none does: it waits for its user, not for a server.
    class Running {
      public:
        explicit Running(bool runs = true);
        Running(const Running&) = delete;
        Running& operator=(const Running&) = delete;
        ~Running();

      private:
        bool m_before;
    };

    /// Whether Ctrl-C was pressed since the last call of forget().
    static bool came();
    /// Does what the signal's handler would do for a Ctrl-C that the caller noticed itself.
    static void note();
    /// Forgets the signal, and lets the client library's operations run again.
    static void forget();
    /// Ends the program by the signal if one came that is to end it, so that whoever started the program sees why it
    /// ended. `isTold`: the command has shown a failure, so no further message is needed.
    static void endProgram(bool isTold);

  private:
    static constexpr std::array kSignals = {SIGINT, SIGTERM, SIGHUP};

    std::array<struct sigaction, kSignals.size()> m_before{};
    Place m_placeBefore;
};
