/// The message catalogue: texts by identifier, shown through one place.
#pragma once

#include <array>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>

#include "runtime/qel_io.h"

/// One message of the table in qel_messages.def.
struct QelMessage {
    std::uint32_t identifier;
    const char* name;   ///< its constant in qel_messages.h
    bool isFailure;     ///< shown with its identifier in front
    const char* kinds;  ///< of its arguments, as in qel_messages.def
    const char* text;   ///< English, with the identifier in front for a failure
};

/// Prepares the catalogue: takes the locale from the environment (LC_CTYPE of the C locale falls back to C.UTF-8, and
/// the language is that of messages alone: LC_MESSAGES of the program becomes C), binds the translations, remembers the
/// program's name for the service log: the last component of `programPath`, which may be null and otherwise must
/// outlive the program's last message. Call once, first. `flags` is 0.
void qelmsg_init(const char* programPath, int flags);

/// Writes a message, translated, filled with its arguments, without a line feed of its own. Text arguments are in the
/// locale's encoding and may be null (shown as empty); what could drive a terminal (qel_visible.h) is made visible in
/// them. An identifier that the table lacks is shown as such. A translation whose placeholders are not
/// those of the English text is passed over for it. Needs no memory, and reaches an unbuffered stream in one piece.
void qel_fprintf(std::FILE* stream, std::uint32_t identifier, ...);

/// Lines that are all the same message with other texts: it is looked up and taken apart once, and lines are gathered.
class QelMessageLines {
  public:
    /// `identifier`: of a message of the table whose arguments are all texts. Its text is the one of the locale in
    /// force.
    QelMessageLines(std::FILE* stream, std::uint32_t identifier);

    /// Writes the message, as qel_fprintf does, and a line feed; the stream gets it by the end of the object. `texts`:
    /// as many as the message has arguments.
    void write(std::initializer_list<std::string_view> texts);

  private:
    struct Piece {
        std::string_view literal;
        int argument;  // in place of the literal, or -1
    };
    static constexpr std::size_t kMaxPieces = 32;

    std::array<Piece, kMaxPieces> m_pieces;
    std::size_t m_count = 0;
    QelGatheredOutput m_out;
};

/// Shows a status, whatever it is, on one line: its identifier, then the text of the failure, translated, with "..."
/// where an argument would stand. A status that is no failure of the table gets a text that says so. As qel_fprintf, it
/// needs no memory. `more`, unless it is 0: a message without arguments that goes on behind the text.
void qel_print_status(std::FILE* stream, std::uint32_t status, std::uint32_t more = 0);

/// The untranslated text of a message, or null when the table lacks it. `status` receives 0 or non-zero; may be null.
const char* qel_msg_get_default_msg(std::uint32_t identifier, std::uint32_t* status);

/// The whole table.
std::span<const QelMessage> qel_msg_table();

enum class QelLanguage { kLocale, kEnglish };

/// A message with arguments from a list, of which the texts are UTF-8. In English they are taken as they are; in the
/// locale's language the whole is in its encoding and as qel_fprintf would write it. Throws std::bad_alloc.
std::string qel_msg_vformat(std::uint32_t identifier, std::va_list list, QelLanguage language);

/// The name of the running program.
const char* qel_msg_program_name();
