/// The line at the prompt as the screen shows it: drawn from its text, whatever size the window has and had.
///
/// The object knows what it drew last and where the cursor is, and gives the output that leads from there to the next
/// picture. Rows that are too narrow for the line go on in the next one by the terminal's automatic margin, so that a
/// terminal which arranges its text anew when it is resized (most do) keeps the line in one piece.
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

    /// The output that shows the prompt and the line, the cursor before the line's character number `cursor`. The first
    /// picture begins where the cursor is, in the first column. Throws std::bad_alloc, and then knows of no picture.
    SecretText draw(std::wstring_view line, std::size_t cursor, Size size);
    /// Forgets the picture, so that the next one is drawn from where the cursor then is.
    void forget() noexcept;

  private:
    struct Place {
        std::size_t row = 0;
        std::size_t column =
            0;  // as many as there are columns: in the last one, with the next character in the next row
        bool operator==(const Place&) const = default;
    };
    /// What takes up columns of its own: a character with the marks on it.
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
    bool m_isOldThere = false;  // another picture, to be drawn over
    Size m_size{};
};
