/// The text of a server's time: "2026-11-24-09:30:00 UTC", always in UTC.
#pragma once

#include <cstdint>

class TimeText {
  public:
    /// `seconds` since 1970-01-01 00:00:00 UTC, negative before.
    explicit TimeText(std::int32_t seconds);
    const char* data() const { return m_text; }

  private:
    char m_text[1024];
};
