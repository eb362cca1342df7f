#include "catalogue/qel_msg.h"

#include <libintl.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>
#include <clocale>
#include <cstring>
#include <cwchar>
#include <new>

#include "catalogue/QelString.h"
#include "catalogue/qel_messages.h"
#include "catalogue/qel_path.h"
#include "runtime/qel_visible.h"

namespace {

constexpr const char* kTextDomain = "vexiladmin";
constexpr std::size_t kIdentifierLength = sizeof "38C50000 " - 1;
constexpr std::size_t kMaxArguments = 9;

constexpr auto kTable = [] {
#define QEL_FAILURE(name, identifier, kinds, text) QelMessage{0x##identifier, #name, true, kinds, #identifier " " text},
#define QEL_TEXT(name, identifier, kinds, text) QelMessage{0x##identifier, #name, false, kinds, text},
#define QEL_FIXED QEL_TEXT
    std::array table{
#include "catalogue/qel_messages.def"
    };
#undef QEL_FIXED
#undef QEL_TEXT
#undef QEL_FAILURE
    std::sort(table.begin(), table.end(),
              [](const QelMessage& left, const QelMessage& right) { return left.identifier < right.identifier; });
    return table;
}();

const char* g_programName = program_invocation_short_name;

/// The locale of the environment. Null until qelmsg_init, or when there was no memory for it: then the program's own
/// locale has the user's language.
locale_t g_userLocale = nullptr;

/// While an object lives, the C library speaks the user's language.
class InUsersLanguage {
  public:
    InUsersLanguage() : m_before(uselocale(g_userLocale)) {}
    InUsersLanguage(const InUsersLanguage&) = delete;
    InUsersLanguage& operator=(const InUsersLanguage&) = delete;
    ~InUsersLanguage() { uselocale(m_before); }

  private:
    locale_t m_before;
};

const QelMessage* find(std::uint32_t identifier) {
    const auto* found =
        std::lower_bound(kTable.begin(), kTable.end(), identifier,
                         [](const QelMessage& message, std::uint32_t wanted) { return message.identifier < wanted; });
    return found != kTable.end() && found->identifier == identifier ? found : nullptr;
}

std::array<char, kIdentifierLength + 1> shownIdentifier(std::uint32_t identifier) {
    std::array<char, kIdentifierLength + 1> shown;
    std::snprintf(shown.data(), shown.size(), "%08X ", identifier);
    return shown;
}

/// An argument of a message, as text.
struct Argument {
    char conversion = 's';   // the placeholder that takes it
    bool isForeign = false;  // text from outside, to be made visible
    std::string_view text;
    std::array<char, 256> made;  // holds the text if it is made here
};

using Arguments = std::array<Argument, kMaxArguments>;

void makeSystemErrorText(int error, QelLanguage language, Argument& argument) {
    std::array<char, 64> buffer;
    const InUsersLanguage inUsersLanguage;
    const char* text = language == QelLanguage::kEnglish ? strerrordesc_np(error) : nullptr;
    if (text == nullptr) {
        text = strerror_r(error, buffer.data(), buffer.size());
    }
    std::snprintf(argument.made.data(), argument.made.size(), "%s (%d)", text, error);
}

std::span<const Argument> fetch(const char* kinds, std::va_list list, QelLanguage language, Arguments& arguments) {
    std::size_t count = 0;
    for (; count < arguments.size() && kinds[count] != '\0'; ++count) {
        Argument& argument = arguments[count];
        if (kinds[count] == 's') {
            const char* text = va_arg(list, const char*);
            argument.text = text == nullptr ? "" : text;
            argument.isForeign = language == QelLanguage::kLocale;
            continue;
        }
        if (kinds[count] == 'v') {
            argument.text = VEXIL_VERSION;
            continue;
        }
        const int number = va_arg(list, int);
        if (kinds[count] == 'e') {
            makeSystemErrorText(number, language, argument);
        } else {
            argument.conversion = 'd';
            std::snprintf(argument.made.data(), argument.made.size(), "%d", number);
        }
        argument.text = argument.made.data();
    }
    return {arguments.data(), count};
}

/// Hands a text, which is in the locale's encoding, to `put`. Makes visible what could drive a terminal.
template <class Put>
void putVisible(std::string_view text, Put put) {
    for (std::mbstate_t state{}; !text.empty();) {
        std::size_t length = qel_plain_prefix(text);
        if (length > 0) {
            put(text.substr(0, length));
        } else {
            wchar_t character = 0;
            length = std::mbrtowc(&character, text.data(), text.size(), &state);
            const std::uint32_t codePoint = std::char_traits<wchar_t>::to_int_type(character);
            if (length == 0 || length > text.size()) {
                state = {};
                length = 1;
                put(qel_escape_byte(text.front()).data());
            } else {
                put(qel_drives_terminal(codePoint) ? qel_escape(codePoint).data() : text.substr(0, length));
            }
        }
        text.remove_prefix(length);
    }
}

/// Takes `text` apart: hands what stands between placeholders to `putText`, and the argument's index for each
/// placeholder to `putArgument`. Returns whether the placeholders take every argument and nothing else. If they do not,
/// part of the text has been handed over.
template <class PutText, class PutArgument>
bool takeApart(std::string_view text, std::span<const Argument> arguments, PutText putText, PutArgument putArgument) {
    unsigned taken = 0;  // a bit for each argument
    std::size_t next = 0;
    for (;;) {
        const std::size_t percent = text.find('%');
        putText(text.substr(0, percent));
        if (percent == std::string_view::npos) {
            return taken == (1U << arguments.size()) - 1;
        }
        text.remove_prefix(percent + 1);
        if (text.starts_with('%')) {
            putText(text.substr(0, 1));
            text.remove_prefix(1);
            continue;
        }
        std::size_t index = next;
        if (text.size() > 1 && text[0] >= '1' && text[0] <= '9' && text[1] == '$') {
            index = static_cast<std::size_t>(text[0] - '1');
            text.remove_prefix(2);
        } else {
            ++next;
        }
        if (index >= arguments.size() || !text.starts_with(arguments[index].conversion)) {
            return false;
        }
        putArgument(index);
        taken |= 1U << index;
        text.remove_prefix(1);
    }
}

/// Hands `text`, its placeholders filled in, to `put`, piece by piece.
template <class Put>
void expand(std::string_view text, std::span<const Argument> arguments, Put put) {
    takeApart(text, arguments, put, [&](std::size_t index) {
        if (arguments[index].isForeign) {
            putVisible(arguments[index].text, put);
        } else {
            put(arguments[index].text);
        }
    });
}

/// The translation of a text, if the arguments fit it, else the text.
std::string_view translated(const char* english, std::span<const Argument> arguments) {
    const InUsersLanguage inUsersLanguage;
    const char* translation = dgettext(kTextDomain, english);
    const bool fits = takeApart(
        translation, arguments, [](std::string_view) {}, [](std::size_t) {});
    return fits ? translation : english;
}

/// Hands a whole message to `put`, in pieces.
template <class Put>
void expand(const QelMessage& message, std::span<const Argument> arguments, QelLanguage language, Put put) {
    const std::size_t prefix = message.isFailure ? kIdentifierLength : 0;
    const char* english = message.text + prefix;
    put(std::string_view(message.text, prefix));
    expand(language == QelLanguage::kLocale ? translated(english, arguments) : english, arguments, put);
}

/// Arguments that are shown as "...": a status has none, and its message may have some.
std::span<const Argument> ellipses(const char* kinds, Arguments& arguments) {
    std::size_t count = 0;
    for (const char kind : std::string_view(kinds).substr(0, arguments.size())) {
        Argument& argument = arguments[count++];
        argument.conversion = kind == 'd' ? 'd' : 's';
        argument.text = "...";
    }
    return {arguments.data(), count};
}

}  // namespace

void qelmsg_init(const char* programPath, int /*flags*/) {
    std::setlocale(LC_ALL, "");
    const std::string_view characters = std::setlocale(LC_CTYPE, nullptr);
    if (characters == "C" || characters == "POSIX") {
        std::setlocale(LC_CTYPE, "C.UTF-8");
    }
    // What others write into trace lines, such as the C library's words for an error, is in English like the lines.
    if (locale_t user = duplocale(LC_GLOBAL_LOCALE); user != nullptr) {
        if (g_userLocale != nullptr) {
            freelocale(g_userLocale);
        }
        g_userLocale = user;
        std::setlocale(LC_MESSAGES, "C");
    }
    try {
        bindtextdomain(kTextDomain, qel_get_path(kPathTranslations).data());
    } catch (const std::bad_alloc&) {
        // Without memory for the folder's name, messages stay English.
    }
    if (programPath != nullptr) {
        const char* slash = std::strrchr(programPath, '/');
        g_programName = slash == nullptr ? programPath : slash + 1;
    }
}

void qel_fprintf(std::FILE* stream, std::uint32_t identifier, ...) {
    QelGatheredOutput out(stream);
    const QelMessage* message = find(identifier);
    if (message == nullptr) {
        out.put(shownIdentifier(identifier).data());
        out.put(find(kMsgNoText)->text);
        return;
    }
    Arguments storage;
    std::va_list list;
    va_start(list, identifier);
    const std::span<const Argument> arguments = fetch(message->kinds, list, QelLanguage::kLocale, storage);
    va_end(list);
    expand(*message, arguments, QelLanguage::kLocale, [&out](std::string_view piece) { out.put(piece); });
}

QelMessageLines::QelMessageLines(std::FILE* stream, std::uint32_t identifier) : m_out(stream) {
    const QelMessage* message = find(identifier);
    assert(message != nullptr && std::string_view(message->kinds).find_first_not_of('s') == std::string_view::npos);
    Arguments storage;
    const std::span<const Argument> arguments = ellipses(message->kinds, storage);
    m_arguments = arguments.size();
    const auto add = [this](const Piece& piece) {
        if (m_count < kMaxPieces) {
            m_pieces[m_count] = piece;
        }
        ++m_count;
    };
    const auto split = [&](std::string_view text) {
        m_count = 0;
        takeApart(
            text, arguments,
            [&](std::string_view literal) {
                if (!literal.empty()) {
                    add({literal, kNoArgument});
                }
            },
            [&](std::size_t index) {
                add({{}, index});
            });
    };
    split(translated(message->text, arguments));
    if (m_count > kMaxPieces) {
        split(message->text);
    }
}

void QelMessageLines::write(std::initializer_list<std::string_view> texts) {
    assert(texts.size() == m_arguments);
    for (const Piece& piece : std::span(m_pieces).first(m_count)) {
        m_out.put(piece.argument == kNoArgument ? piece.literal : texts.begin()[piece.argument]);
    }
    m_out.put("\n");
}

void qel_print_status(std::FILE* stream, std::uint32_t status, std::uint32_t more) {
    const QelMessage* message = find(status);
    const bool isFailure = message != nullptr && message->isFailure;
    const char* english = isFailure ? message->text + kIdentifierLength : find(kMsgNoText)->text;
    Arguments storage;
    const std::span<const Argument> arguments = ellipses(isFailure ? message->kinds : "", storage);
    std::string_view text = translated(english, arguments);
    text = text.substr(0, text.find_last_not_of('\n') + 1);
    QelGatheredOutput out(stream);
    out.put(shownIdentifier(status).data());
    expand(text, arguments, [&out](std::string_view piece) {
        for (const char& byte : piece) {
            out.put(byte == '\n' ? " " : std::string_view(&byte, 1));
        }
    });
    if (more != 0) {
        out.put(" ");
        out.put(translated(find(more)->text, {}));
    }
    out.put("\n");
}

const char* qel_msg_get_default_msg(std::uint32_t identifier, std::uint32_t* status) {
    const QelMessage* message = find(identifier);
    if (status != nullptr) {
        *status = message == nullptr ? kStatusUnknownName : 0;
    }
    return message == nullptr ? nullptr : message->text;
}

std::span<const QelMessage> qel_msg_table() {
    return kTable;
}

std::string qel_msg_vformat(std::uint32_t identifier, std::va_list list, QelLanguage language) {
    const QelMessage* message = find(identifier);
    if (message == nullptr) {
        return shownIdentifier(identifier).data() + std::string(find(kMsgNoText)->text);
    }
    Arguments storage;
    const std::span<const Argument> arguments = fetch(message->kinds, list, language, storage);
    std::array<QelString, kMaxArguments> shown;
    for (std::size_t index = 0; index < arguments.size(); ++index) {
        if (storage[index].isForeign) {
            shown[index] = QelString(storage[index].text, QelString::kForDisplay);
            storage[index].text = shown[index].view();
        }
    }
    std::string out;
    expand(*message, arguments, language, [&out](std::string_view piece) { out += piece; });
    return out;
}

const char* qel_msg_program_name() {
    return g_programName;
}
