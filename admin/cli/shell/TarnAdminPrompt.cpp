#include "admin/cli/shell/TarnAdminPrompt.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "admin/cli/shell/TarnAdminInterrupt.h"
#include "runtime/qel_io.h"

namespace {

using WideText = std::vector<wchar_t, WipingAllocator<wchar_t>>;

/// Keys that the line editor does not know of itself, and what they do.
constexpr const wchar_t* kKeys[][2] = {
    {L"^I", L"vexil-complete"},       {L"^R", L"em-inc-search-prev"}, {L"\\e[1~", L"ed-move-to-beg"},
    {L"\\e[4~", L"ed-move-to-end"},   {L"\\e[7~", L"ed-move-to-beg"}, {L"\\e[8~", L"ed-move-to-end"},
    {L"\\e[H", L"ed-move-to-beg"},    {L"\\e[F", L"ed-move-to-end"},  {L"\\e[3~", L"ed-delete-next-char"},
    {L"\\e[2~", L"ed-quoted-insert"}, {L"\\e[1;5C", L"em-next-word"}, {L"\\e[1;5D", L"ed-prev-word"},
    {L"\\e[5C", L"em-next-word"},     {L"\\e[5D", L"ed-prev-word"},   {L"\\e\\e[C", L"em-next-word"},
    {L"\\e\\e[D", L"ed-prev-word"},
};

/// Appends a text in the locale's encoding.
void appendText(std::wstring_view text, SecretText& out) {
    std::mbstate_t state{};
    for (const wchar_t character : text) {
        char bytes[MB_LEN_MAX];
        const std::size_t length = std::wcrtomb(bytes, character, &state);
        if (length != static_cast<std::size_t>(-1)) {
            out.append(bytes, length);
        }
    }
}

/// A text of the locale's encoding, NUL-terminated.
WideText wide(const char* text) {
    WideText out(std::strlen(text) + 1);
    std::mbstate_t state{};
    if (std::mbsrtowcs(out.data(), &text, out.size(), &state) == static_cast<std::size_t>(-1)) {
        out.assign(1, L'\0');
    }
    return out;
}

/// How many columns a text takes.
std::size_t columnsOf(const std::string& text) {
    std::size_t columns = 0;
    for (const wchar_t character : wide(text.c_str())) {
        columns += static_cast<std::size_t>(std::max(wcwidth(character), 0));
    }
    return columns;
}

PromptDisplay::Size windowSize() {
    winsize window{};
    ioctl(STDIN_FILENO, TIOCGWINSZ, &window);
    return {window.ws_col > 0 ? window.ws_col : 80U, window.ws_row > 0 ? window.ws_row : 24U};
}

PromptDisplay::Terminal terminalKind() {
    const char* name = std::getenv("TERM");
    return name == nullptr || *name == '\0' || std::string_view(name) == "dumb" ? PromptDisplay::Terminal::kDumb
                                                                                : PromptDisplay::Terminal::kAddressable;
}

wchar_t* noPrompt(EditLine* /*editor*/) {
    static wchar_t empty[] = L"";
    return empty;
}

}  // namespace

TarnAdminPrompt::TarnAdminPrompt(std::string_view prompt, Completer completer)
    : m_prompt(prompt), m_completer(std::move(completer)), m_display(terminalKind(), prompt) {}

// The line editor saves the terminal's settings when it is opened, so it must be the program's terminal then.
void TarnAdminPrompt::openEditor() {
    cookie_io_functions_t functions{};
    functions.write = hear;
    m_heard.reset(fopencookie(this, "w", functions));
    m_history.reset(history_winit());
    if (m_heard == nullptr || m_history == nullptr) {
        throw std::bad_alloc();
    }
    std::setvbuf(m_heard.get(), m_heardBytes.data(), _IOFBF, m_heardBytes.size());
    m_editor.reset(el_init_fd("vexiladmin", stdin, m_heard.get(), stderr, STDIN_FILENO, STDIN_FILENO, STDERR_FILENO));
    if (m_editor == nullptr) {
        throw std::bad_alloc();
    }
    HistEventW event;
    history_w(m_history.get(), &event, H_SETSIZE, INT_MAX);
    el_wset(m_editor.get(), EL_HIST, history_w, m_history.get());
    el_wset(m_editor.get(), EL_CLIENTDATA, this);
    el_wset(m_editor.get(), EL_PROMPT, noPrompt);
    el_wset(m_editor.get(), EL_GETCFN, readCharacter);
    el_wset(m_editor.get(), EL_EDITOR, L"emacs");
    bindKeys();
    el_source(m_editor.get(), nullptr);
    if (!m_signals->canShow()) {
        el_wset(m_editor.get(), EL_EDITMODE, 0);
    }
}

void TarnAdminPrompt::bindKeys() {
    el_wset(m_editor.get(), EL_ADDFN, L"vexil-complete", L"Complete the words of a command", complete);
    for (const auto& [key, function] : kKeys) {
        el_wset(m_editor.get(), EL_BIND, key, function, nullptr);
    }
}

TarnAdminPrompt& TarnAdminPrompt::of(EditLine* editor) {
    void* prompt = nullptr;
    el_wget(editor, EL_CLIENTDATA, &prompt);
    return *static_cast<TarnAdminPrompt*>(prompt);
}

/// Whether the user's ~/.editrc leaves editing on, and the line can be shown.
bool TarnAdminPrompt::isEdited() const {
    int isOn = 0;
    el_wget(m_editor.get(), EL_EDITMODE, &isOn);
    return isOn != 0;
}

bool TarnAdminPrompt::read(SecretText& line) {
    line.wipe();  // it may hold a password, and the next line may be long in coming
    for (;;) {
        qel_flush_output();
        QelTerminalSignals signals;
        m_signals = &signals;
        TarnAdminInterrupt::forget();
        m_isInterrupted = false;
        m_room = 0;
        m_display.forget();
        if (m_editor == nullptr) {
            openEditor();
        }
        if (!isEdited()) {
            signals.write(m_prompt);
        }
        int length = 0;
        const wchar_t* text = el_wgets(m_editor.get(), &length);
        if (text != nullptr && isEdited()) {
            drawEnd("");
        }
        m_signals = nullptr;
        if (std::exchange(m_lacksMemory, false)) {
            throw std::bad_alloc();
        }
        if (text != nullptr) {
            appendText({text, static_cast<std::size_t>(length)}, line);
            line.resize(line.find_last_not_of("\r\n") + 1);
            return true;
        }
        if (!m_isInterrupted) {
            return false;
        }
    }
}

/// Receives what the line editor writes. Its picture of the line is not used. Its bell is rung, and when it clears the
/// screen, the screen is cleared.
ssize_t TarnAdminPrompt::hear(void* prompt, const char* bytes, std::size_t size) {
    auto& self = *static_cast<TarnAdminPrompt*>(prompt);
    const std::string_view text(bytes, size);
    if (self.m_signals != nullptr && text.find('\a') != std::string_view::npos) {
        self.m_signals->show("\a");
    }
    if (self.m_signals != nullptr && text.find("\x1B[H") != std::string_view::npos) {
        self.m_signals->show("\x1B[H\x1B[J");
        self.m_display.forget();
    }
    return static_cast<ssize_t>(size);
}

std::wstring_view TarnAdminPrompt::line(std::size_t& cursor) const {
    const LineInfoW* info = el_wline(m_editor.get());
    cursor = static_cast<std::size_t>(info->cursor - info->buffer);
    return {info->buffer, static_cast<std::size_t>(info->lastchar - info->buffer)};
}

bool TarnAdminPrompt::makeRoom() {
    std::size_t cursor = 0;
    const std::size_t length = line(cursor).size();
    m_longest = std::max(m_longest, length);
    constexpr std::size_t kWidest = 8;  // columns of what the line editor shows for a character
    const std::size_t needed = kWidest * (length + m_longest) + 1024;
    if (needed <= m_room) {
        return true;
    }
    const std::size_t room = 2 * needed;
    constexpr std::size_t kMostDigits = 9'999'999;  // the line editor takes seven
    if (room > kMostDigits || el_wset(m_editor.get(), EL_SETTC, L"li", L"2", nullptr) != 0 ||
        el_wset(m_editor.get(), EL_SETTC, L"co", std::to_wstring(room).c_str(), nullptr) != 0) {
        return false;
    }
    el_wset(m_editor.get(), EL_REFRESH);
    m_room = room;
    return true;
}

void TarnAdminPrompt::draw() {
    std::size_t cursor = 0;
    const std::wstring_view text = line(cursor);
    m_signals->write(m_display.draw(text, cursor, windowSize()));
}

/// Shows the line as it was left, `behind` at its end, and goes to a fresh row.
void TarnAdminPrompt::drawEnd(std::string_view behind) {
    SecretText out;
    if (isEdited()) {
        std::size_t cursor = 0;
        std::wstring_view text = line(cursor);
        text = text.substr(0, text.find_last_not_of(L'\n') + 1);
        out = m_display.draw(text, text.size(), windowSize());
        out += behind;
        m_display.forget();
    }
    out += '\n';
    m_signals->write(out);
}

/// Returns the next byte that was typed. Returns EOF when the input has ended or failed, or an interrupt came. Throws
/// std::bad_alloc.
int TarnAdminPrompt::readByte() {
    pollfd input{STDIN_FILENO, POLLIN, 0};
    if (isEdited() && poll(&input, 1, 0) <= 0) {
        draw();  // not while more input waits: what is pasted is drawn once, at its end
    }
    for (;;) {
        switch (m_signals->wait()) {
            case QelTerminalSignals::Event::kInterrupt:
                m_isInterrupted = true;
                drawEnd("^C");
                return EOF;
            case QelTerminalSignals::Event::kResume:
                el_wset(m_editor.get(), EL_PREP_TERM, 0);  // or the line editor believes that nothing has changed
                el_wset(m_editor.get(), EL_PREP_TERM, 1);
                m_display.forget();
                draw();
                break;
            case QelTerminalSignals::Event::kResize:
                draw();
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

/// The line editor's function for reading: 1 with a character, or -1. Bytes that are no character of the locale are
/// dropped.
int TarnAdminPrompt::readCharacter(EditLine* editor, wchar_t* character) {
    TarnAdminPrompt& self = of(editor);
    try {
        if (!self.makeRoom()) {
            throw std::bad_alloc();
        }
        std::mbstate_t state{};
        for (;;) {
            const int byte = self.readByte();
            if (byte == EOF) {
                return -1;
            }
            const char text = static_cast<char>(byte);
            const bool isFirst = std::mbsinit(&state) != 0;
            std::size_t length = std::mbrtowc(character, &text, 1, &state);
            if (length == static_cast<std::size_t>(-1)) {
                state = {};
                // The byte that broke the character off may begin another one.
                length = isFirst ? length : std::mbrtowc(character, &text, 1, &state);
            }
            if (length == static_cast<std::size_t>(-1)) {
                state = {};
            } else if (length != static_cast<std::size_t>(-2)) {
                return 1;
            }
        }
    } catch (const std::bad_alloc&) {
        self.m_lacksMemory = true;  // an exception may not pass through the line editor, which is C
        return -1;
    }
}

/// The line editor's function for the Tab key.
unsigned char TarnAdminPrompt::complete(EditLine* editor, int /*key*/) {
    try {
        return of(editor).completeLine();
    } catch (const std::bad_alloc&) {
        return CC_ERROR;
    }
}

unsigned char TarnAdminPrompt::completeLine() {
    std::size_t cursor = 0;
    SecretText before;
    appendText(line(cursor).substr(0, cursor), before);
    const TarnAdminCompletion completion = m_completer(before);
    if (!completion.insertion.empty()) {
        const bool isDone = el_winsertstr(m_editor.get(), wide(completion.insertion.c_str()).data()) == 0 && makeRoom();
        return isDone ? CC_REFRESH : CC_ERROR;
    }
    if (completion.choices.empty()) {
        return CC_ERROR;
    }
    showChoices(completion.choices);
    return CC_NORM;
}

/// Shows choices below the line, in columns.
void TarnAdminPrompt::showChoices(const std::vector<std::string>& choices) {
    std::size_t widest = 0;
    for (const std::string& choice : choices) {
        widest = std::max(widest, columnsOf(choice));
    }
    constexpr std::size_t kIndent = 4;
    constexpr std::size_t kGap = 2;
    const std::size_t width = std::max(windowSize().columns, kIndent + 1);
    const std::size_t perRow = std::max<std::size_t>(1, (width - kIndent + kGap - 1) / (widest + kGap));
    std::string shown;
    std::size_t padding = 0;
    for (std::size_t index = 0; index < choices.size(); ++index) {
        const bool isFirst = index % perRow == 0;
        shown += isFirst && index > 0 ? "\n" : "";
        shown.append(isFirst ? kIndent : padding + kGap, ' ');
        shown += choices[index];
        padding = widest - columnsOf(choices[index]);
    }
    drawEnd("\n" + shown);
}

void TarnAdminPrompt::remember(const SecretText& line, Kind kind) {
    if (kind != Kind::kOther) {
        maskPassword();
    }
    HistEventW event;
    const WideText text = wide(line.c_str());
    if (history_w(m_history.get(), &event, H_ENTER, text.data()) < 0 || kind != Kind::kLoginWithPassword) {
        return;
    }
    m_withPassword = event.num;
    // The line editor keeps the line and its picture of it until a longer line overwrites them.
    std::size_t cursor = 0;
    const std::wstring_view kept = this->line(cursor);
    std::fill_n(const_cast<wchar_t*>(kept.data()), kept.size(), L'*');
    el_wset(m_editor.get(), EL_REFRESH);
    explicit_bzero(m_heardBytes.data(), m_heardBytes.size());
}

void TarnAdminPrompt::maskPassword() {
    HistEventW event;
    int found = m_withPassword == 0 ? -1 : history_w(m_history.get(), &event, H_FIRST);
    while (found >= 0 && event.num != m_withPassword) {
        found = history_w(m_history.get(), &event, H_NEXT);
    }
    m_withPassword = 0;
    if (found < 0) {
        return;
    }
    constexpr wchar_t kBlanks[] = L" \t";
    const std::wstring_view line(event.str);
    const std::size_t end = line.find_last_not_of(kBlanks) + 1;
    const std::size_t begin = line.substr(0, end).find_last_of(kBlanks) + 1;
    // The history gives its own text, which is not constant.
    std::fill_n(const_cast<wchar_t*>(line.data()) + begin, end - begin, L'*');
}
