#include "admin/cli/vexiladmin/TarnAdminPrompt.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cwchar>
#include <string_view>

// The line editor's header uses FILE without declaring it.
#include <editline/readline.h>

#include "admin/cli/vexiladmin/TarnAdminInterrupt.h"
#include "runtime/QelTerminalSignals.h"
#include "runtime/SecretBuffer.h"
#include "runtime/qel_io.h"

namespace {

/// What the line editor's read function needs to know of the line in hand.
struct Reading {
    QelTerminalSignals signals;
    bool interrupted = false;
};

Reading* g_reading = nullptr;

/// The next byte, or EOF: the end of the input, a failure, an interrupt.
int readByte(Reading& reading) {
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
            return static_cast<int>(character);
        }
    }
}

}  // namespace

TarnAdminPrompt::TarnAdminPrompt() {
    rl_outstream = qel_descriptor_output();
    rl_catch_signals = 0;
    rl_getc_function = readCharacter;
}

TarnAdminPrompt::Line TarnAdminPrompt::read(const char* prompt) {
    for (;;) {
        std::fflush(stdout);
        Reading reading;
        TarnAdminInterrupt::forget();
        g_reading = &reading;
        Line line(readline(prompt));
        g_reading = nullptr;
        if (!reading.interrupted) {
            return line;
        }
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
