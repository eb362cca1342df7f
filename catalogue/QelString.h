/// A string of bytes, NUL-terminated, with the conversions that text undergoes on its way in and out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "runtime/SecretBuffer.h"

class QelStringRef;

/// A string literal, for constants that exist before main without needing memory.
class QelLiteral {
  public:
    template <std::size_t size>
    consteval QelLiteral(const char (&text)[size]) : m_text(text, size - 1) {}
    constexpr std::string_view view() const noexcept { return m_text; }

  private:
    std::string_view m_text;
};

/// Some strings are passwords, so a string wipes the memory that it gives back.
class QelString {
  public:
    /// What becomes of the bytes that a string is made from.
    enum Mode : int {
        /// They are taken as they are: literals of the program, words of a line that is converted already.
        kBytes = 0,
        /// They are converted from the locale's encoding to UTF-8: what the user typed. Bytes that are no text in that
        /// encoding stay as they are.
        kFromLocale = 1,
        /// They are converted from UTF-8 to the locale's encoding. Made visible is what could drive a terminal
        /// (qel_visible.h), except tabs and one line feed at the end, and what is not valid UTF-8 or not in the
        /// encoding.
        kForDisplay = 2,
    };

    QelString() = default;
    /// Refers to the literal, and copies it only when the content changes.
    constexpr explicit QelString(const QelLiteral& literal) noexcept : m_literal(literal.view()) {}
    /// Null counts as empty. Throws std::bad_alloc.
    explicit QelString(const char* text, Mode mode = kBytes);
    explicit QelString(std::string_view text, Mode mode = kBytes);
    explicit QelString(const QelStringRef& ref);
    QelString(const QelString&) = default;
    QelString(QelString&&) noexcept = default;
    QelString& operator=(const QelString&) = default;
    QelString& operator=(QelString&&) noexcept = default;
    virtual ~QelString() = default;

    /// Whether kForDisplay changes nothing in the text, whatever the locale. A quick look: false means that it may.
    static bool isShownAsItIs(std::string_view text) noexcept;

    /// Replaces the content. Returns 0 or kStatusNoMemory, which leaves the content as it was. Null counts as empty.
    [[nodiscard]] std::uint32_t set(const char* text, Mode mode = kBytes) noexcept;
    /// Throws std::bad_alloc.
    void append(std::string_view text);
    void clear() noexcept;

    /// The bytes, NUL-terminated; valid until the string changes.
    const char* data() const noexcept { return view().data(); }
    std::size_t length() const noexcept { return view().size(); }
    bool empty() const noexcept { return view().empty(); }
    std::string_view view() const noexcept { return m_made ? *m_made : m_literal; }

    /// 32-bit FNV-1a over the bytes (draft-eastlake-fnv).
    std::uint32_t hash() const noexcept;
    /// Compares bytes: less than, equal to or greater than 0.
    int compare(const QelString& other) const noexcept;

  private:
    // The content as long as m_made has none. NOLINTNEXTLINE(readability-redundant-string-init): never null
    std::string_view m_literal = "";
    std::optional<SecretText> m_made;
};
