/// A piece of a text that lives elsewhere; not NUL-terminated. The text must outlive it.
#pragma once

#include <cstddef>
#include <string_view>

class QelStringRef {
  public:
    constexpr QelStringRef() = default;
    constexpr QelStringRef(std::string_view text) : m_text(text) {}

    constexpr const char* data() const noexcept { return m_text.data(); }
    constexpr std::size_t length() const noexcept { return m_text.size(); }
    constexpr bool empty() const noexcept { return m_text.empty(); }
    constexpr std::string_view view() const noexcept { return m_text; }

  private:
    std::string_view m_text;
};
