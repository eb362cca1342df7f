/// Ctrl-C (SIGINT) while a command runs: it ends the command instead of the program.
///
/// While an object lives, an interrupt makes the client library end its wait for a server. That needs a function that a
/// library of a site's own may lack; with such a library, and where SIGINT is ignored, nothing is changed and the
/// signal takes its usual course.
#pragma once

#include <csignal>

class TarnAdminInterrupt {
  public:
    /// What the second interrupt does.
    enum class Second {
        kAsTheFirst,
        kEndsProgram,
    };

    explicit TarnAdminInterrupt(Second second);
    TarnAdminInterrupt(const TarnAdminInterrupt&) = delete;
    TarnAdminInterrupt& operator=(const TarnAdminInterrupt&) = delete;
    ~TarnAdminInterrupt();

    /// Whether an interrupt came since the last `forget`.
    static bool came();
    /// Takes down that one came, for those who heard of it in another way.
    static void note();
    /// Lets the client library's operations run again.
    static void forget();
    /// Ends the program as an interrupt does: whoever started it must see that. Returns if SIGINT is ignored.
    static void endProgram();

  private:
    struct sigaction m_before {};
};
