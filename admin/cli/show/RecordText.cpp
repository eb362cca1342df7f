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
    // The index of each part in a text such as "2026-11-25-21:29:00 UTC".
    enum : std::size_t { kCentury = 0, kYear = 2, kMonth = 5, kDay = 8, kHour = 11, kMinute = 14, kSecond = 17 };
    const std::chrono::sys_seconds time{std::chrono::seconds(seconds)};
    const auto day = std::chrono::floor<std::chrono::days>(time);
    if (day != m_day) {
        m_day = day;
        const std::chrono::year_month_day date(day);
        const auto year = static_cast<unsigned>(static_cast<int>(date.year()));  // 1901 to 2038
        writeTwoDigits(&m_text[kCentury], year / 100);
        writeTwoDigits(&m_text[kYear], year % 100);
        writeTwoDigits(&m_text[kMonth], static_cast<unsigned>(date.month()));
        writeTwoDigits(&m_text[kDay], static_cast<unsigned>(date.day()));
    }
    const std::chrono::hh_mm_ss clock(time - day);
    writeTwoDigits(&m_text[kHour], static_cast<unsigned>(clock.hours().count()));
    writeTwoDigits(&m_text[kMinute], static_cast<unsigned>(clock.minutes().count()));
    writeTwoDigits(&m_text[kSecond], static_cast<unsigned>(clock.seconds().count()));
}
