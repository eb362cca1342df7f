/// The prompt on a terminal: line editing, history, and the course of signals while a line is typed.
///
/// Tab completes the words of commands. No signal leaves the terminal as the line editor wants it (QelTerminalSignals).
/// A password in a line stays in the history until the next login, and nowhere else.
#pragma once

#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string_view>

#include "admin/cli/vexiladmin/TarnAdminCompletion.h"

class TarnAdminPrompt {
  public:
    struct Freer {
        void operator()(char* text) const {
            explicit_bzero(text, std::strlen(text));
            std::free(text);
        }
    };
    using Line = std::unique_ptr<char, Freer>;

    /// Completes a line of which the text before the cursor is given. May throw std::bad_alloc.
    using Completer = std::function<TarnAdminCompletion(std::string_view)>;

    explicit TarnAdminPrompt(Completer completer);

    /// A line without its line feed, or null at the end of the input. An interrupt gives up the line and begins anew.
    Line read(const char* prompt);
    /// What a line is, besides a line.
    enum class Kind { kOther, kLogin, kLoginWithPassword };
    /// Puts the line into the history. A login masks the password, the last word, of the login before it.
    void remember(const char* line, Kind kind);

  private:
    void bindTab();
    void maskPassword();

    const Completer m_completer;
    bool m_isTabBound = false;
    int m_withPassword = 0;  // the number of a line in the history, or 0
};
