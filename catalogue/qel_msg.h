/// The message catalogue: the texts by their identifiers, and the one place that writes them to a stream.
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

/// A row of qel_messages.def: a text for people, and what it takes as arguments.
struct QelMessage {
    std::uint32_t identifier;
    const char* name;   ///< its constant in qel_messages.h
    bool isFailure;     ///< shown with its identifier in front
    const char* kinds;  ///< of its arguments, as in qel_messages.def
    const char* text;   ///< English, with the identifier in front for a failure
};

/// Prepares the catalogue: sets the locale, finds the translations, and notes the program's name. Call it once, before
/// anything else here.
///
/// The locale comes from the environment. LC_CTYPE becomes C.UTF-8 where it would be C, and only messages follow
/// LC_MESSAGES. The name is the last component of `programPath`, which may be null and otherwise must outlive the last
/// message. `flags` is 0.
void qelmsg_init(const char* programPath, int flags);

/// Writes a message, translated and filled with its arguments. Adds no line feed. A text argument is in the locale's
/// encoding, and null counts as empty; what could drive a terminal (qel_visible.h) is made visible in it. An identifier
/// that the table lacks is shown itself. A translation that takes other arguments than the English text is not used.
/// Needs no memory, and reaches an unbuffered stream in one piece.
void qel_fprintf(std::FILE* stream, std::uint32_t identifier, ...);

/// Writes many lines that are the same message with different arguments. Looks the message up and takes it apart once,
/// and hands the stream many lines at a time.
class QelMessageLines {
  public:
    /// The message is one of the table, and all its arguments are texts. It is translated for the locale in force now.
    QelMessageLines(std::FILE* stream, std::uint32_t identifier);

    /// Writes the message and a line feed, at the latest when the object goes. `texts` are as many as the message has
    /// arguments, and in the locale's encoding without anything that could drive a terminal.
    void write(std::initializer_list<std::string_view> texts);

  private:
    struct Piece {
        std::string_view literal;
        std::size_t argument;  // its index, or kNoArgument for a literal
    };
    static constexpr std::size_t kNoArgument = static_cast<std::size_t>(-1);
    static constexpr std::size_t kMaxPieces = 32;

    std::array<Piece, kMaxPieces> m_pieces;
    std::size_t m_count = 0;
    std::size_t m_arguments = 0;  // of the message
    QelGatheredOutput m_out;
};

/// Shows a status, whatever it is, on one line: its identifier, then the text of the failure, translated, with "..." in
/// place of each argument. For a status that is no failure of the table the text says that there is none. `more`,
/// unless it is 0, is a message of the table without arguments, which follows the text. Needs no memory.
void qel_print_status(std::FILE* stream, std::uint32_t status, std::uint32_t more = 0);

/// The untranslated text of a message, or null when the table lacks it. `status` receives 0 or non-zero; may be null.
const char* qel_msg_get_default_msg(std::uint32_t identifier, std::uint32_t* status);

/// The whole table.
std::span<const QelMessage> qel_msg_table();

enum class QelLanguage { kLocale, kEnglish };

/// The text of a message with arguments from a list. Texts among them are UTF-8. In English they are taken as they are.
/// In the locale's language the result is in the locale's encoding and as qel_fprintf would write it. Throws
/// std::bad_alloc.
std::string qel_msg_vformat(std::uint32_t identifier, std::va_list list, QelLanguage language);

/// The name of the running program.
const char* qel_msg_program_name();
