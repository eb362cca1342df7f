#include "admin/cli/show/RecordText.h"

#include <utility>

namespace {

void writeTwoDigits(char* to, unsigned number) {
    to[0] = static_cast<char>('0' + number / 10);
    to[1] = static_cast<char>('0' + number % 10);
}

}  // namespace

RecordText::RecordText(const char* text) : m_shown(text == nullptr ? "" : text) {
    if (QelString::isShownAsItIs(m_shown)) {
        return;
    }
    m_escaped.emplace(text, QelString::kForDisplay);
    if (m_escaped->view().ends_with('\n')) {
        QelString escaped(m_escaped->view().substr(0, m_escaped->length() - 1));
        escaped.append("\\x0A");
        m_escaped = std::move(escaped);
    }
    m_shown = m_escaped->view();
}

void TimeText::set(std::int32_t seconds) {
    const std::chrono::sys_seconds time{std::chrono::seconds(seconds)};
    const auto day = std::chrono::floor<std::chrono::days>(time);
    if (day != m_day) {
        m_day = day;
        const std::chrono::year_month_day date(day);
        const auto year = static_cast<unsigned>(static_cast<int>(date.year()));  // 1901 to 2038
        writeTwoDigits(&m_text[0], year / 100);
        writeTwoDigits(&m_text[2], year % 100);
        writeTwoDigits(&m_text[5], static_cast<unsigned>(date.month()));
        writeTwoDigits(&m_text[8], static_cast<unsigned>(date.day()));
    }
    const auto second = static_cast<unsigned>((time - day).count());
    writeTwoDigits(&m_text[11], second / 3600);
    writeTwoDigits(&m_text[14], second / 60 % 60);
    writeTwoDigits(&m_text[17], second % 60);
}
