/// The prompt on a terminal: line editing, history, and the course of signals while a line is typed.
///
/// No signal leaves the terminal as the line editor wants it (QelTerminalSignals). A password in a line stays in the
/// history until the next login, and nowhere else.
#pragma once

#include <cstdlib>
#include <cstring>
#include <memory>

class TarnAdminPrompt {
  public:
    struct Freer {
        void operator()(char* text) const {
            explicit_bzero(text, std::strlen(text));
            std::free(text);
        }
    };
    using Line = std::unique_ptr<char, Freer>;

    TarnAdminPrompt();

    /// A line without its line feed, or null at the end of the input. An interrupt gives up the line and begins anew.
    Line read(const char* prompt);
    /// What a line is, besides a line.
    enum class Kind { kOther, kLogin, kLoginWithPassword };
    /// Puts the line into the history. A login masks the password, the last word, of the login before it.
    void remember(const char* line, Kind kind);

  private:
    void maskPassword();

    int m_withPassword = 0;  // the number of a line in the history, or 0
};
