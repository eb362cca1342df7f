/// How the commands show what the client library's records hold.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string_view>

#include "catalogue/QelString.h"

/// The text of a record, converted to the locale's encoding. It is one line, whatever a server put into it: what could
/// drive a terminal is made visible, also a line feed at the end. Null counts as empty. The text must outlive the
/// object.
class RecordText {
  public:
    explicit RecordText(const char* text);
    RecordText(const RecordText&) = delete;
    RecordText& operator=(const RecordText&) = delete;

    const char* data() const { return m_shown.data(); }
    std::string_view view() const { return m_shown; }

  private:
    std::optional<QelString> m_escaped;  // unless the text is shown as it is
    std::string_view m_shown;            // NUL-terminated
};

/// The text of a server's time: "2026-11-24-09:30:00 UTC", always in UTC.
class TimeText {
  public:
    TimeText() { set(0); }
    explicit TimeText(std::int32_t seconds) { set(seconds); }
    void set(std::int32_t seconds);

    const char* data() const { return m_text.data(); }
    std::string_view view() const { return {m_text.data(), m_text.size() - 1}; }

  private:
    std::array<char, sizeof("yyyy-mm-dd-hh:mm:ss UTC")> m_text{"yyyy-mm-dd-hh:mm:ss UTC"};
    std::chrono::sys_days m_day = std::chrono::sys_days::min();  // the day that the text shows
};
