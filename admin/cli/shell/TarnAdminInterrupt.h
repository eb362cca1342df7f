/// Signals that end a command or the program (Ctrl-C, SIGTERM, SIGHUP): nothing that was finished is lost by them.
///
/// While an object lives, the first of them that comes while a command runs makes the client library end its wait for a
/// server, so that the command can tell what became of it. The program ends after that, by the signal; at the prompt
/// Ctrl-C gives back the prompt. Any other ends the program at once, after its finished results are written out and it
/// is told that a signal ended it. Ending the wait needs a function that a library of a site's own may lack; with such
/// a library every signal ends the program at once. What is ignored when the object is made stays ignored.
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

    /// While an object lives, a command runs. `false`: it waits for its user, and not for a server.
    class Running {
      public:
        explicit Running(bool runs = true);
        Running(const Running&) = delete;
        Running& operator=(const Running&) = delete;
        ~Running();

      private:
        bool m_before;
    };

    /// Whether a signal came since the last `forget`.
    static bool came();
    /// Notes that Ctrl-C came, when the caller learned of it in another way than by the signal.
    static void note();
    /// Lets the client library's operations run again.
    static void forget();
    /// If one came that ends the program, ends it by that signal: whoever started it must see that. `isTold`: the
    /// command has said so itself.
    static void endProgram(bool isTold);

  private:
    static constexpr std::array kSignals = {SIGINT, SIGTERM, SIGHUP};

    std::array<struct sigaction, kSignals.size()> m_before{};
    Place m_placeBefore;
};
