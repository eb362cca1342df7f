/// Reads stanza files: named stanzas, each with a list of entries. An example:
///
///     # a comment; so is a line that begins with a semicolon
///     [tarn]
///     location = node1:9080
///     ssl-keyfile
///
/// `[name]` opens a stanza, or continues it if it has appeared before. `name = value` is an entry, and a name alone is
/// an entry without a value. Blanks (space, tab, carriage return) around names and values are no part of them. A line
/// may have any length, and a UTF-8 byte order mark may begin the file. The file is malformed if a line begins with `[`
/// and does not end in `]`, a name is empty, an entry stands before the first stanza, or there is a NUL byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

/// Takes the text of a stanza file apart, line by line.
class StanzaParser {
  public:
    enum class Item { kStanza, kEntry, kEnd, kError };

    /// `text` must outlive the parser and every piece it gives.
    explicit StanzaParser(std::string_view text) noexcept;

    /// Goes to the next stanza or entry. After kEnd or kError it returns the same again.
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

/// An open stanza file. It has been read whole and is well-formed.
struct qelStanzaFile;

/// Opens and reads a file. `status` receives 0, kStatusFileOpen, kStatusFileRead, kStatusFileSyntax or kStatusNoMemory;
/// on a failure the service log names the file, and the line if it is malformed. Returns null on failure. Close the
/// file with qelStzFileClose.
[[nodiscard]] qelStanzaFile* qelStzFileOpen(const char* path, std::uint32_t* status) noexcept;
/// Moves to the first entry of a stanza. Returns 0, or non-zero when there is no such stanza. Names compare exactly.
[[nodiscard]] std::uint32_t qelStzMoveStanza(qelStanzaFile* file, const char* stanza) noexcept;
/// Moves to the next entry of the stanza. Returns 0, or non-zero at the stanza's end.
[[nodiscard]] std::uint32_t qelStzMoveNextEntry(qelStanzaFile* file) noexcept;
/// Name and value of the current entry, valid until the file is closed. Null when there is no current entry: the stanza
/// is empty or has ended. An entry without a value has an empty one.
const char* qelStzEntryName(const qelStanzaFile* file) noexcept;
const char* qelStzEntryValue(const qelStanzaFile* file) noexcept;
/// The path it was opened with.
const char* qelStzFileName(const qelStanzaFile* file) noexcept;
/// Null is accepted.
void qelStzFileClose(qelStanzaFile* file) noexcept;
