/// Small helpers for text that comes from outside.
#pragma once

#include <string>
#include <string_view>

namespace dsessd {

/// `text` fit for one line of a log: control characters (C0, DEL, C1) and bytes that are no UTF-8 come out as `\xNN`,
/// and what is longer than `maxBytes` ends in an ellipsis.
std::string harmless(std::string_view text, std::size_t maxBytes = 256);

/// A string for a secret. Its bytes are overwritten when it goes; its room is reserved at once, so that growing leaves
/// no copy behind.
class SecretString {
  public:
    explicit SecretString(std::size_t capacity) { m_text.reserve(capacity); }
    SecretString(const SecretString&) = delete;
    SecretString& operator=(const SecretString&) = delete;
    ~SecretString() { wipe(); }

    /// Appends unless that would exceed the room reserved; says whether it did.
    bool append(std::string_view more);
    void wipe();
    /// Drops the last byte. Must not be empty.
    void popBack();
    std::string_view view() const { return m_text; }
    char* data() { return m_text.data(); }
    const char* c_str() const { return m_text.c_str(); }

  private:
    std::string m_text;
};

}  // namespace dsessd
