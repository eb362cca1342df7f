/// The prompt on a terminal: reads lines with line editing, history and completion.
///
/// The line editor (editline(3)) holds the line and knows the keys, also those of the user's ~/.editrc. It draws
/// nothing: it is made to believe that the screen is one row, always wide enough, and PromptDisplay draws instead. Tab
/// completes the words of commands. A signal that ends the program finds the terminal restored (QelTerminalSignals). A
/// password in a line stays in the history until the next login, and nowhere else.
#pragma once

#include <histedit.h>

#include <array>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "admin/cli/language/TarnAdminCompletion.h"
#include "admin/cli/shell/PromptDisplay.h"
#include "runtime/QelTerminalSignals.h"
#include "runtime/SecretBuffer.h"

class TarnAdminPrompt {
  public:
    /// Completes a line of which the text before the cursor is given. May throw std::bad_alloc.
    using Completer = std::function<TarnAdminCompletion(std::string_view)>;

    /// `prompt` is ASCII and outlives the object. Throws std::bad_alloc.
    TarnAdminPrompt(std::string_view prompt, Completer completer);

    /// Reads a line, without its line feed. Returns false at the end of the input. Ctrl-C gives the line up and begins
    /// a new one. Throws std::bad_alloc.
    bool read(SecretText& line);
    /// What the history has to know of a line.
    enum class Kind { kOther, kLogin, kLoginWithPassword };
    /// Puts the line that was read last into the history. If it is a login, replaces the password of the login before
    /// it, which is that line's last word, by asterisks.
    void remember(const SecretText& line, Kind kind);

  private:
    struct Closer {
        void operator()(std::FILE* stream) const { std::fclose(stream); }
        void operator()(EditLine* editor) const {
            el_wset(editor, EL_EDITMODE, 0);  // or it would throw away what is typed for others
            el_end(editor);
        }
        void operator()(HistoryW* history) const { history_wend(history); }
    };
    template <class Resource>
    using Owned = std::unique_ptr<Resource, Closer>;

    static ssize_t hear(void* prompt, const char* bytes, std::size_t size);
    static int readCharacter(EditLine* editor, wchar_t* character);
    static unsigned char complete(EditLine* editor, int key);
    static TarnAdminPrompt& of(EditLine* editor);

    void openEditor();
    void bindKeys();
    bool isEdited() const;
    std::wstring_view line(std::size_t& cursor) const;
    /// Makes the line editor's row longer than the line can become by the next key. Returns false when that fails.
    bool makeRoom();
    void draw();
    void drawEnd(std::string_view behind);
    int readByte();
    unsigned char completeLine();
    void showChoices(const std::vector<std::string>& choices);
    void maskPassword();

    const std::string_view m_prompt;
    const Completer m_completer;
    std::array<char, 1024> m_heardBytes{};
    Owned<std::FILE> m_heard;  // the stream that the line editor writes to
    Owned<HistoryW> m_history;
    Owned<EditLine> m_editor;
    PromptDisplay m_display;
    QelTerminalSignals* m_signals = nullptr;  // while a line is read
    bool m_isInterrupted = false;
    bool m_lacksMemory = false;
    std::size_t m_longest = 0;  // characters of the longest line so far
    std::size_t m_room = 0;     // columns of the line editor's row; 0: to be set for this line
    int m_withPassword = 0;     // the number of the line in the history that holds a password, or 0
};
