/// The text of a time, always in UTC.
#pragma once

#include <array>
#include <ctime>

class QelTimeText {
  public:
    /// `seconds` since 1970-01-01 00:00:00 UTC, negative before. `format` is strftime's (strftime(3)) and comes to less
    /// than 64 bytes.
    QelTimeText(std::time_t seconds, const char* format) noexcept {
        std::tm utc{};
        gmtime_r(&seconds, &utc);
        std::strftime(m_text.data(), m_text.size(), format, &utc);
    }
    const char* data() const noexcept { return m_text.data(); }

  private:
    std::array<char, 64> m_text{};
};
