/// The prompt on a terminal: line editing, history, and the course of signals while a line is typed.
///
/// No signal leaves the terminal as the line editor wants it (QelTerminalSignals).
#pragma once

#include <cstdlib>
#include <memory>

class TarnAdminPrompt {
  public:
    struct Freer {
        void operator()(char* text) const { std::free(text); }
    };
    using Line = std::unique_ptr<char, Freer>;

    TarnAdminPrompt();

    /// A line without its line feed, or null at the end of the input. An interrupt gives up the line and begins anew.
    Line read(const char* prompt);
    /// Puts the line into the history.
    void remember(const char* line);
};
