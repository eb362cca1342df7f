/// The stanza file reader: named stanzas of ordered name and value entries.
///
/// `[name]` opens a stanza; `name = value` is an entry; a name alone is an entry without a value; `#` or `;` in the
/// first non-blank column is a comment. Blanks (space, tab, carriage return) around names and values are no part of
/// them. A UTF-8 byte order mark is accepted, and no line is too long. A stanza that appears twice continues. A line
/// that begins with `[` and does not end in `]`, an empty name, an entry before any stanza or a NUL byte makes the file
/// malformed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

/// Takes a stanza text apart, line by line.
class StanzaParser {
  public:
    enum class Item { kStanza, kEntry, kEnd, kError };

    /// `text` must outlive the parser and every piece it gives.
    explicit StanzaParser(std::string_view text) noexcept;

    /// The next stanza or entry, or the end, or an error. After kEnd and kError it gives the same again.
    Item next() noexcept;

    /// Name of the stanza or entry just given.
    std::string_view name() const noexcept { return m_name; }
    /// Value of the entry just given; empty when it has none.
    std::string_view value() const noexcept { return m_value; }
    /// 1-based line of what was just given, errors included.
    std::size_t line() const noexcept { return m_line; }
    /// What is wrong, after kError; a literal.
    const char* error() const noexcept { return m_error; }

  private:
    Item fail(const char* error) noexcept;

    std::string_view m_rest;
    std::string_view m_name;
    std::string_view m_value;
    std::size_t m_line = 0;
    bool m_inStanza = false;
    const char* m_error = nullptr;
};

/// An open stanza file, read whole and found well-formed.
struct qelStanzaFile;

/// Opens and reads a file. `status` receives 0, kStatusFileOpen, kStatusFileRead, kStatusFileSyntax or kStatusNoMemory;
/// the service log then names the file, and the line for a malformed one. Returns null on failure. A directory cannot
/// be read. Close it with qelStzFileClose.
[[nodiscard]] qelStanzaFile* qelStzFileOpen(const char* path, std::uint32_t* status) noexcept;
/// Moves to the first entry of a stanza. Returns 0, or non-zero when there is no such stanza. Names compare exactly.
[[nodiscard]] std::uint32_t qelStzMoveStanza(qelStanzaFile* file, const char* stanza) noexcept;
/// Moves to the next entry of the stanza. Returns 0, or non-zero at the stanza's end.
[[nodiscard]] std::uint32_t qelStzMoveNextEntry(qelStanzaFile* file) noexcept;
/// Name and value of the entry moved to; null when there is none (an empty stanza, its end). The value of an entry
/// without one is empty. Valid until the file is closed.
const char* qelStzEntryName(const qelStanzaFile* file) noexcept;
const char* qelStzEntryValue(const qelStanzaFile* file) noexcept;
/// The path it was opened with.
const char* qelStzFileName(const qelStanzaFile* file) noexcept;
/// Null is accepted.
void qelStzFileClose(qelStanzaFile* file) noexcept;
