#include "admin/cli/vexiladmin/TarnAdminPrompt.h"

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cwchar>
#include <new>
#include <string>
#include <string_view>
#include <vector>

// The line editor's header uses FILE without declaring it.
#include <editline/readline.h>

#include "admin/cli/vexiladmin/TarnAdminInterrupt.h"
#include "runtime/QelTerminalSignals.h"
#include "runtime/SecretBuffer.h"
#include "runtime/qel_io.h"

namespace {

constexpr wchar_t kTab = L'\t';

/// What the line editor's read function needs to know of the line in hand.
struct Reading {
    const TarnAdminPrompt::Completer& completer;
    QelTerminalSignals signals{};
    bool interrupted = false;
    std::string inserted{};  // read as though it were typed, before anything else
};

Reading* g_reading = nullptr;

/// The next byte, or EOF: the end of the input, a failure, an interrupt.
int readByte(Reading& reading) {
    if (!reading.inserted.empty()) {
        const char byte = reading.inserted.front();
        reading.inserted.erase(0, 1);
        return static_cast<unsigned char>(byte);
    }
    for (;;) {
        switch (reading.signals.wait()) {
            case QelTerminalSignals::Event::kInterrupt:
                reading.signals.show("^C\n");
                reading.interrupted = true;
                return EOF;
            case QelTerminalSignals::Event::kResume:
                rl_deprep_terminal();  // or the line editor takes the terminal to be as it left it
                rl_prep_terminal(1);
                rl_forced_update_display();
                break;
            case QelTerminalSignals::Event::kResize:
                rl_resize_terminal();
                break;
            case QelTerminalSignals::Event::kInput:
                unsigned char byte = 0;
                if (const ssize_t got = ::read(STDIN_FILENO, &byte, 1); got == 1) {
                    return byte;
                } else if (got == 0 || (errno != EINTR && errno != EAGAIN)) {
                    return EOF;
                }
        }
    }
}

/// The line editor puts a NUL at the line's end into what it takes for its buffer of bytes, which has moved if the line
/// outgrew the first: the NUL would go into memory of others. This gives it one that is long enough. Returns false
/// without memory for it.
bool prepareForTab() {
    static std::vector<char> buffer;
    char* const copy = rl_copy_text(0, INT_MAX);  // has room for the line, but may lack its end and a NUL
    if (copy == nullptr) {
        return false;
    }
    const std::size_t size = malloc_usable_size(copy);
    explicit_bzero(copy, size);
    std::free(copy);
    try {
        buffer.resize(std::max(buffer.size(), size));
    } catch (const std::bad_alloc&) {
        return false;
    }
    rl_line_buffer = buffer.data();
    return true;
}

/// The next character, as the wide character that the line editor makes of whatever it is given here. Bytes that are no
/// character of the locale are dropped.
int readCharacter(std::FILE* /*stream*/) {
    std::mbstate_t state{};
    for (;;) {
        const int byte = readByte(*g_reading);
        if (byte == EOF) {
            return EOF;
        }
        const char text = static_cast<char>(byte);
        wchar_t character = 0;
        const bool first = std::mbsinit(&state) != 0;
        std::size_t length = std::mbrtowc(&character, &text, 1, &state);
        if (length == static_cast<std::size_t>(-1)) {
            state = {};
            // What broke a character off may begin another one.
            length = first ? length : std::mbrtowc(&character, &text, 1, &state);
        }
        if (length == static_cast<std::size_t>(-1)) {
            state = {};
        } else if (length != static_cast<std::size_t>(-2)) {
            if (character != kTab || prepareForTab()) {
                return static_cast<int>(character);
            }
        }
    }
}

/// How many columns the line editor takes for a text.
int columnsOf(const char* text) {
    int columns = 0;
    std::mbstate_t state{};
    wchar_t character = 0;
    for (std::size_t length = 0;; text += length) {
        length = std::mbrtowc(&character, text, MB_LEN_MAX, &state);
        if (length == 0 || length > MB_LEN_MAX) {
            return columns;
        }
        const int width = wcwidth(character);
        columns += width < 0 ? 2 : width;  // ^X
    }
}

/// Shows choices below the line, in columns, and then the line anew.
void showChoices(const std::vector<std::string>& choices, int cursorColumn, int endColumn) {
    int height = 0;
    int width = 0;
    rl_get_screen_size(&height, &width);
    width = std::max(width, 1);
    int widest = 0;
    for (const std::string& choice : choices) {
        widest = std::max(widest, columnsOf(choice.c_str()));
    }
    constexpr int kIndent = 4;
    constexpr int kGap = 2;
    const auto perRow = static_cast<std::size_t>(std::max(1, (width - kIndent + kGap - 1) / (widest + kGap)));
    std::string shown(static_cast<std::size_t>(endColumn / width - cursorColumn / width), '\n');
    int padding = 0;
    for (std::size_t index = 0; index < choices.size(); ++index) {
        const bool isFirst = index % perRow == 0;
        shown += isFirst ? "\n" : "";
        shown.append(static_cast<std::size_t>(isFirst ? kIndent : padding + kGap), ' ');
        shown += choices[index];
        padding = widest - columnsOf(choices[index].c_str());
    }
    std::fprintf(rl_outstream, "%s\n", shown.c_str());
    std::fflush(rl_outstream);
    rl_forced_update_display();
}

/// The line editor's function for the Tab key.
int complete(int /*count*/, int /*key*/) {
    // A blank at the cursor, which a backspace takes away again, lets a copy have all that stands before it.
    const auto cursor = static_cast<std::size_t>(rl_point);
    const bool hasBlank = rl_insert_text(" ") == 1;
    const TarnAdminPrompt::Line line(hasBlank ? rl_copy_text(0, INT_MAX) : nullptr);
    Reading& reading = *g_reading;
    try {
        reading.inserted = hasBlank ? "\b" : "";
        if (line == nullptr) {
            return 0;
        }
        const SecretText before(line.get(), cursor);
        const TarnAdminCompletion completion = reading.completer(before);
        if (!completion.choices.empty()) {
            const int prompt = columnsOf(rl_prompt);
            showChoices(completion.choices, prompt + columnsOf(before.c_str()), prompt + columnsOf(line.get()));
        } else if (completion.insertion.empty()) {
            reading.signals.show("\a");
        }
        reading.inserted += completion.insertion;
    } catch (const std::bad_alloc&) {
        reading.signals.show("\a");
    }
    return 0;
}

}  // namespace

TarnAdminPrompt::TarnAdminPrompt(Completer completer) : m_completer(std::move(completer)) {
    rl_outstream = qel_descriptor_output();
    rl_catch_signals = 0;
    rl_getc_function = readCharacter;
}

TarnAdminPrompt::Line TarnAdminPrompt::read(const char* prompt) {
    for (;;) {
        std::fflush(stdout);
        Reading reading{m_completer};
        TarnAdminInterrupt::forget();
        g_reading = &reading;
        bindTab();
        Line line(readline(prompt));
        g_reading = nullptr;
        if (!reading.interrupted) {
            return line;
        }
    }
}

void TarnAdminPrompt::bindTab() {
    if (!m_isTabBound) {
        m_isTabBound = true;
        rl_initialize();
        rl_add_defun("vexil-complete", complete, kTab);
        rl_parse_and_bind("bind ^I vexil-complete");
    }
}

void TarnAdminPrompt::remember(const char* line, Kind kind) {
    if (kind != Kind::kOther) {
        maskPassword();
    }
    add_history(line);
    if (kind == Kind::kLoginWithPassword) {
        m_withPassword = history_base + history_length - 1;
        // The line editor's own buffers, of wide characters and of bytes, keep the line until a longer one is typed.
        const SecretText mask(std::strlen(line), '*');
        rl_replace_line(mask.c_str(), 1);
        std::free(rl_copy_text(0, static_cast<int>(mask.size())));
    }
}

void TarnAdminPrompt::maskPassword() {
    const HIST_ENTRY* entry = m_withPassword == 0 ? nullptr : history_get(m_withPassword);
    m_withPassword = 0;
    if (entry == nullptr) {
        return;
    }
    // The history's own text.
    char* text = const_cast<char*>(entry->line);
    constexpr char kBlanks[] = " \t";
    const std::string_view line(text);
    const std::size_t end = line.find_last_not_of(kBlanks) + 1;
    const std::size_t begin = line.substr(0, end).find_last_of(kBlanks) + 1;
    std::fill(text + begin, text + end, '*');
}
