/// Draws the line at the prompt: turns its text into output for the terminal, whatever size the window has and had.
///
/// It writes nothing itself and expects that its output reaches the terminal. It remembers the last picture and where
/// the cursor is, and gives the output that turns that picture into the next. A line that is wider than the window
/// continues in the next row by the terminal's automatic margin. So a terminal that rearranges its text when it is
/// resized, as most do, keeps the line in one piece.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

#include "runtime/SecretBuffer.h"

class PromptDisplay {
  public:
    enum class Terminal {
        kAddressable,  ///< obeys the cursor's movements of ECMA-48
        kDumb,         ///< only goes back to the first column
    };
    struct Size {
        std::size_t columns;
        std::size_t rows;
        bool operator==(const Size&) const = default;
    };

    PromptDisplay(Terminal terminal, std::string_view prompt) : m_terminal(terminal), m_prompt(prompt) {}

    /// Returns the output that shows the prompt and the line, with the cursor before the line's character number
    /// `cursor`, counted from 0. The window has at least one column and one row. The first picture begins in the row
    /// where the cursor is, and expects it in the first column. Throws std::bad_alloc, and has then forgotten the
    /// picture.
    SecretText draw(std::wstring_view line, std::size_t cursor, Size size);
    /// Forgets the picture. The next one begins in the row where the cursor then is.
    void forget() noexcept;

  private:
    struct Place {
        std::size_t row = 0;
        // One behind the last: the cursor is on the last column, and the next character goes into the next row.
        std::size_t column = 0;
        bool operator==(const Place&) const = default;
    };
    /// A character, with the marks that combine with it.
    struct Glyph {
        std::size_t begin;  // of its bytes
        std::size_t width;
        Place at{};
    };
    struct Picture {
        SecretText bytes;
        std::vector<Glyph> glyphs;
        Place end;  // of the line, or of the last row that is shown
        Place cursor;
    };

    static Picture compose(std::string_view prompt, std::wstring_view line, std::size_t& cursor);
    static void arrange(Picture& picture, std::size_t columns);
    static void cutOut(Picture& picture, std::size_t rows);
    static std::string_view bytesOf(const Picture& picture, std::size_t from, std::size_t to);
    std::size_t commonPart(const Picture& picture) const;
    void drawAddressable(const Picture& picture, std::size_t columns, SecretText& out);
    void drawDumb(const Picture& picture, SecretText& out) const;
    std::size_t rowAfterResize(std::size_t columns) const;
    void startAnew(Size size, SecretText& out);
    void move(Place from, Place to, SecretText& out) const;

    const Terminal m_terminal;
    const std::string_view m_prompt;
    Picture m_shown;
    bool m_isOldThere = false;  // the screen still shows a forgotten picture below the cursor
    Size m_size{};
};
