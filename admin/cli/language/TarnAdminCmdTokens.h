/// The words of one line, such as `realm`, `show` and `east` of "realm show east". Blanks, tabs and line feeds separate
/// them. There is no quoting: no word holds a blank.
#pragma once

#include <array>
#include <cstdint>

#include "runtime/SecretBuffer.h"

class TarnAdminCmdTokens {
  public:
    /// Words beyond this many are dropped. No command takes nearly as many, so such a line fits none.
    static constexpr std::int32_t kMaxTokens = 128;

    TarnAdminCmdTokens() = default;
    TarnAdminCmdTokens(const TarnAdminCmdTokens&) = delete;
    TarnAdminCmdTokens& operator=(const TarnAdminCmdTokens&) = delete;

    /// Replaces the words by those of `text`. Returns 0, or kStatusNoMemory, having written that to standard error;
    /// then there are no words.
    [[nodiscard]] std::uint32_t set(const char* text);

    std::int32_t tokens() const { return m_count; }
    /// The word at an index, or null when there is none. Valid until the next set.
    const char* operator[](std::int32_t index) const;

  private:
    std::int32_t m_count = 0;
    std::array<char*, kMaxTokens> m_tokens;
    SecretText m_text;  // a word may be a password; a NUL ends each word
};
