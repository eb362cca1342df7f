#include "admin/cli/vexiladmin/TarnAdminPrompt.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cwchar>

// The line editor's header uses FILE without declaring it.
#include <editline/readline.h>

#include "admin/cli/vexiladmin/TarnAdminInterrupt.h"
#include "runtime/QelTerminalSignals.h"
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

void TarnAdminPrompt::remember(const char* line) {
    add_history(line);
}
