#include "admin/cli/shell/PromptDisplay.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <climits>
#include <cstdio>
#include <cwchar>
#include <string>

#include "runtime/qel_visible.h"

namespace {

constexpr char kClear[] = "\x1B[J";

/// Appends `text` with each of its bytes, which are ASCII, as a glyph.
template <class Add>
void addEach(std::string_view text, Add add) {
    for (const char& byte : text) {
        add(std::string_view(&byte, 1), 1);
    }
}

/// Hands a character of the line to `add`, as bytes of the locale's encoding and the columns that they take.
template <class Add>
void addCharacter(wchar_t character, Add add) {
    const std::uint32_t codePoint = std::char_traits<wchar_t>::to_int_type(character);
    const int width = wcwidth(character);
    std::array<char, MB_LEN_MAX> bytes;
    std::mbstate_t state{};
    if (character == L'\n') {
        addEach("  ", add);  // in a search of the history, the line editor puts one before the text that it looks for
    } else if (codePoint < ' ' || codePoint == 0x7F) {
        addEach(std::array<char, 3>{'^', static_cast<char>(codePoint ^ 0x40)}.data(), add);
    } else if (const std::size_t length = std::wcrtomb(bytes.data(), character, &state);
               width < 0 || length == static_cast<std::size_t>(-1) || qel_drives_terminal(codePoint)) {
        addEach(qel_escape(codePoint).data(), add);
    } else {
        add(std::string_view(bytes.data(), length), static_cast<std::size_t>(width));
    }
}

void appendSequence(std::size_t count, char command, SecretText& out) {
    if (count > 0) {
        out += "\x1B[";
        out += std::to_string(count);
        out += command;
    }
}

}  // namespace

void PromptDisplay::forget() noexcept {
    m_shown = {};
}

SecretText PromptDisplay::draw(std::wstring_view line, std::size_t cursor, Size size) {
    assert(cursor <= line.size() && size.columns > 0 && size.rows > 0);
    const bool isDumb = m_terminal == Terminal::kDumb;
    if (isDumb) {
        size = {std::max<std::size_t>(size.columns, 2) - 1, 1};  // what a terminal does in its last column differs
    }
    SecretText out;
    try {
        Picture picture = compose(m_prompt, line, cursor);
        arrange(picture, size.columns);
        picture.cursor = cursor < picture.glyphs.size() ? picture.glyphs[cursor].at : picture.end;
        cutOut(picture, size.rows);
        startAnew(size, out);
        if (isDumb) {
            drawDumb(picture, out);
        } else {
            drawAddressable(picture, size.columns, out);
        }
        m_shown = std::move(picture);
    } catch (const std::bad_alloc&) {
        forget();
        throw;
    }
    return out;
}

/// Makes glyphs of the prompt and the line. `cursor` is the number of a character before, and of a glyph afterwards.
PromptDisplay::Picture PromptDisplay::compose(std::string_view prompt, std::wstring_view line, std::size_t& cursor) {
    Picture picture;
    const auto add = [&picture](std::string_view bytes, std::size_t width) {
        if (width > 0) {
            picture.glyphs.push_back({picture.bytes.size(), width});
        }
        picture.bytes += bytes;
    };
    addEach(prompt, add);
    std::size_t glyph = 0;
    for (std::size_t index = 0; index <= line.size(); ++index) {
        if (index == cursor) {
            glyph = picture.glyphs.size();
        }
        if (index < line.size()) {
            addCharacter(line[index], add);
        }
    }
    cursor = glyph;
    return picture;
}

void PromptDisplay::arrange(Picture& picture, std::size_t columns) {
    Place next;
    for (Glyph& glyph : picture.glyphs) {
        if (glyph.width > columns) {
            // The window is narrower than this glyph, so it cannot be shown.
            const std::size_t begin = glyph.begin;
            const std::size_t end = &glyph == &picture.glyphs.back() ? picture.bytes.size() : (&glyph + 1)->begin;
            std::fill(picture.bytes.begin() + static_cast<std::ptrdiff_t>(begin),
                      picture.bytes.begin() + static_cast<std::ptrdiff_t>(end), '\0');
            picture.bytes[begin] = '?';
            glyph.width = 1;
        }
        if (next.column + glyph.width > columns) {
            next = {next.row + 1, 0};
        }
        glyph.at = next;
        next.column += glyph.width;
    }
    picture.end = next.column == columns ? Place{next.row + 1, 0} : next;
}

/// Drops rows until the picture fits into the window. The row with the cursor stays.
void PromptDisplay::cutOut(Picture& picture, std::size_t rows) {
    const std::size_t all = picture.end.row + 1;
    if (all <= rows) {
        return;
    }
    const std::size_t top = std::min(picture.cursor.row, all - rows);
    const auto isAbove = [](std::size_t row) { return [row](const Glyph& glyph) { return glyph.at.row < row; }; };
    auto& glyphs = picture.glyphs;
    const auto first = std::partition_point(glyphs.begin(), glyphs.end(), isAbove(top));
    const auto last = std::partition_point(first, glyphs.end(), isAbove(top + rows));
    if (picture.end.row >= top + rows) {
        picture.bytes.resize(last == glyphs.end() ? picture.bytes.size() : last->begin);
        picture.end = {std::prev(last)->at.row, std::prev(last)->at.column + std::prev(last)->width};
    }
    const std::size_t before = first == glyphs.end() ? picture.bytes.size() : first->begin;
    picture.bytes.erase(0, before);
    glyphs.erase(last, glyphs.end());
    glyphs.erase(glyphs.begin(), first);
    for (Glyph& glyph : glyphs) {
        glyph.begin -= before;
        glyph.at.row -= top;
    }
    picture.end.row -= top;
    picture.cursor.row -= top;
}

/// Returns the bytes of a range of glyphs.
std::string_view PromptDisplay::bytesOf(const Picture& picture, std::size_t from, std::size_t to) {
    const auto beginOf = [&picture](std::size_t index) {
        return index < picture.glyphs.size() ? picture.glyphs[index].begin : picture.bytes.size();
    };
    return std::string_view(picture.bytes).substr(beginOf(from), beginOf(to) - beginOf(from));
}

/// How many glyphs, from the first on, are the same as in the last picture.
std::size_t PromptDisplay::commonPart(const Picture& picture) const {
    const std::size_t most = std::min(picture.glyphs.size(), m_shown.glyphs.size());
    std::size_t count = 0;
    while (count < most && bytesOf(picture, count, count + 1) == bytesOf(m_shown, count, count + 1)) {
        ++count;
    }
    return count;
}

/// The row in which the cursor is after the terminal has rearranged the last picture, keeping the cursor at its
/// character.
std::size_t PromptDisplay::rowAfterResize(std::size_t columns) const {
    Place next;
    const auto advance = [&next, columns](std::size_t width) {
        next = next.column + width > columns ? Place{next.row + 1, width} : Place{next.row, next.column + width};
    };
    const Glyph* before = nullptr;
    for (const Glyph& glyph : m_shown.glyphs) {
        if (before != nullptr && glyph.at.row > before->at.row) {
            // A wide character had no room in the last column, so a blank stands there.
            for (std::size_t end = before->at.column + before->width; end < m_size.columns; ++end) {
                advance(1);
            }
        }
        if (glyph.at == m_shown.cursor) {
            return next.column + glyph.width > columns ? next.row + 1 : next.row;
        }
        advance(std::min(glyph.width, columns));
        before = &glyph;
    }
    if (m_shown.end.column == 0) {
        advance(1);  // the blank that was drawn to begin the row that the cursor is in
    }
    return next.row;
}

/// After a change of size, goes to where the last picture begins and forgets it.
void PromptDisplay::startAnew(Size size, SecretText& out) {
    if (m_size == size) {
        return;
    }
    if (!m_shown.glyphs.empty()) {
        if (m_terminal == Terminal::kAddressable) {
            appendSequence(std::min(rowAfterResize(size.columns), size.rows - 1), 'A', out);
        }
        out += '\r';
    }
    m_isOldThere = !m_shown.glyphs.empty();
    forget();
    m_size = size;
}

void PromptDisplay::move(Place from, Place to, SecretText& out) const {
    constexpr std::size_t kNear = 4;
    appendSequence(from.row > to.row ? from.row - to.row : 0, 'A', out);
    appendSequence(to.row > from.row ? to.row - from.row : 0, 'B', out);
    if (to.column < from.column && from.column - to.column <= kNear && from.column < m_size.columns) {
        out.append(from.column - to.column, '\b');
    } else if (from.column != to.column) {
        out += '\r';
        appendSequence(to.column, 'C', out);
    }
}

void PromptDisplay::drawAddressable(const Picture& picture, std::size_t columns, SecretText& out) {
    const std::size_t first = commonPart(picture);
    Place at = m_shown.cursor;
    if (first < picture.glyphs.size() || first < m_shown.glyphs.size()) {
        Place from;
        if (first > 0) {
            const Glyph& before = picture.glyphs[first - 1];
            from = {before.at.row, before.at.column + before.width};
            from = from.column == columns ? Place{from.row + 1, 0} : from;
        }
        move(at, from, out);
        at = from;
        for (std::size_t index = first; index < picture.glyphs.size(); ++index) {
            const Glyph& glyph = picture.glyphs[index];
            if (at.column + glyph.width > columns) {
                out.append(columns - at.column, ' ');
            }
            out += bytesOf(picture, index, index + 1);
            at = {glyph.at.row, glyph.at.column + glyph.width};
        }
        const bool isNextRow = at.column == columns && picture.end != at;
        out += isNextRow ? " " : "";  // begins the row by the automatic margin, so that both stay one line
        // Only now: some terminals save what is cleared from the first row of the window on.
        if ((m_isOldThere || first < m_shown.glyphs.size()) && (isNextRow || at.column < columns)) {
            out += kClear;
        }
        if (isNextRow) {
            out += '\r';
            at = picture.end;
        }
        m_isOldThere = false;
    }
    move(at, picture.cursor, out);
}

void PromptDisplay::drawDumb(const Picture& picture, SecretText& out) const {
    const std::size_t first = commonPart(picture);
    if (first < m_shown.glyphs.size() || m_shown.cursor != m_shown.end) {
        out += '\r';
        out += picture.bytes;
        out.append(std::max(m_shown.end.column, picture.end.column) - picture.end.column, ' ');
        out += '\r';
        out += picture.bytes;
    } else {
        out += bytesOf(picture, first, picture.glyphs.size());
    }
    if (picture.cursor != picture.end) {
        std::size_t index = 0;
        while (picture.glyphs[index].at != picture.cursor) {
            ++index;
        }
        out += '\r';
        out += bytesOf(picture, 0, index);
    }
}
