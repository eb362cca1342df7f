#include "admin/cli/shell/PromptDisplay.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>
#include <cwchar>
#include <optional>
#include <random>
#include <string>
#include <tuple>
#include <vector>

namespace {

constexpr std::string_view kPrompt = "vexiladmin> ";

/// A terminal that arranges its text anew when it is resized. The first row is another program's.
class Screen {
  public:
    Screen(std::size_t columns, std::size_t rows) : m_columns(columns), m_height(rows) {}

    void write(std::string_view bytes) {
        for (std::mbstate_t state{}; !bytes.empty();) {
            wchar_t character = 0;
            const std::size_t length = std::mbrtowc(&character, bytes.data(), bytes.size(), &state);
            ASSERT_LE(length - 1, bytes.size() - 1) << "part of a character";
            bytes.remove_prefix(length);
            switch (character) {
                case L'\x1B':
                    obey(bytes);
                    break;
                case L'\r':
                    m_column = 0;
                    break;
                case L'\b':
                    ASSERT_LT(m_column - 1, m_columns - 1) << "from the margin, terminals differ";
                    --m_column;
                    break;
                default:
                    put(character, static_cast<std::size_t>(wcwidth(character)));
            }
        }
    }

    void resize(std::size_t columns) {
        Screen next(columns, m_height);
        std::optional<std::pair<std::size_t, std::size_t>> cursor;
        for (std::size_t row = 1; row < m_rows.size(); ++row) {
            for (std::size_t column = 0; column < m_rows[row].size(); ++column) {
                for (const wchar_t character : m_rows[row][column]) {
                    const auto width = static_cast<std::size_t>(wcwidth(character));
                    next.put(character, width);
                    if (row == m_row && column == m_column && width > 0) {
                        cursor.emplace(next.m_row, next.m_column - width);
                    }
                }
            }
        }
        std::tie(next.m_row, next.m_column) = cursor.value_or(std::pair(next.m_row, next.m_column));
        *this = next;
    }

    /// All that is shown but blanks, with | before the character at the cursor.
    std::wstring shown() const {
        std::wstring text;
        for (std::size_t row = 0; row < m_rows.size(); ++row) {
            for (std::size_t column = 0; column < m_rows[row].size(); ++column) {
                const std::wstring& cell = m_rows[row][column];
                text += row == m_row && column == m_column ? L"|" : L"";
                std::copy_if(cell.begin(), cell.end(), std::back_inserter(text),
                             [](wchar_t one) { return one != L' '; });
            }
            text += row == m_row && m_column >= m_rows[row].size() ? L"|" : L"";
        }
        return text;
    }

  private:
    void put(wchar_t character, std::size_t width) {
        if (width == 0) {
            m_rows[m_row][m_column - 1 - (m_rows[m_row][m_column - 1].empty() ? 1 : 0)] += character;
            return;
        }
        if (m_column + width > m_columns) {
            ++m_row;
            m_column = 0;
        }
        if (m_rows.size() <= m_row) {
            ASSERT_LE(m_row, m_height) << "what stands above would go";
            m_rows.resize(m_row + 1);
        }
        auto& row = m_rows[m_row];
        row.resize(std::max(row.size(), m_column + width));
        row[m_column] = character;
        if (width == 2) {
            row[m_column + 1].clear();
        }
        m_column += width;
    }

    void obey(std::string_view& bytes) {
        std::size_t digits = 0;
        const std::size_t count = bytes[1] >= 'A' ? 1 : std::stoul(std::string(bytes.substr(1)), &digits);
        const char command = bytes[1 + digits];
        bytes.remove_prefix(2 + digits);
        if (command == 'J') {
            ASSERT_LT(m_column, m_columns) << "would take the last character too";
            m_rows.resize(m_row + 1);
            m_rows[m_row].resize(std::min(m_rows[m_row].size(), m_column));
        } else if (command == 'A') {
            ASSERT_GT(m_row, count) << "the first row is another program's";
            m_row -= count;
        } else if (command == 'B') {
            ASSERT_LT(m_row + count, m_rows.size()) << "no terminal goes below its last row";
            m_row += count;
        } else {
            ASSERT_EQ(command, 'C');
            ASSERT_LT(m_column + count, m_columns);
            m_column += count;
        }
    }

    std::size_t m_columns;
    std::size_t m_height;
    std::vector<std::vector<std::wstring>> m_rows{{L"$"}, {}};
    std::size_t m_row = 1;
    std::size_t m_column = 0;
};

TEST(PromptDisplay, ShowsTheLineAtAnyWidthHoweverItAndTheWindowChange) {
    ASSERT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
    std::mt19937 random(1);
    const auto below = [&random](std::size_t limit) { return random() % limit; };
    const std::wstring letters = L"abc deé東京é\u0301\u202E\x01";
    for (int turn = 0; turn < 300; ++turn) {
        std::size_t columns = 2 + below(90);
        PromptDisplay display(PromptDisplay::Terminal::kAddressable, kPrompt);
        const bool isLow = below(4) == 0;
        const std::size_t rows = isLow ? 1 + below(4) : 400;
        Screen screen(columns, rows);
        std::wstring line;
        for (int step = 0; step < 40; ++step) {
            std::size_t cursor = below(3) > 0 ? line.size() : below(line.size() + 1);
            switch (isLow ? 1 + below(3) : below(4)) {
                case 0:
                    columns = 2 + below(90);
                    screen.resize(columns);
                    break;
                case 1:
                    line.erase(cursor, below(6));
                    break;
                default:
                    const std::wstring typed(1 + below(below(2) > 0 ? 2 : 40), letters[below(letters.size())]);
                    line.insert(cursor, typed);
                    cursor += typed.size();
            }
            const SecretText out = display.draw(line, cursor, {columns, rows});
            screen.write(out);
            if (HasFatalFailure()) {
                return;
            }
            std::size_t place = cursor;  // behind the marks of a character
            while (place < line.size() && line[place] == L'\u0301') {
                ++place;
            }
            std::wstring expected = L"$vexiladmin>";
            for (std::size_t index = 0; index <= line.size(); ++index) {
                expected += index == place ? L"|" : L"";
                if (index < line.size()) {
                    expected += line[index] == L' '        ? L""
                                : line[index] == L'\u202E' ? L"\\u{202E}"
                                : line[index] == L'\x01'   ? L"^A"
                                                           : std::wstring(1, line[index]);
                }
            }
            const std::wstring shown = screen.shown();
            ASSERT_EQ(shown, isLow && expected.find(shown.substr(1)) != std::wstring::npos ? shown : expected)
                << turn << " " << step;
        }
    }
}

}  // namespace
