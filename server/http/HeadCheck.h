/// Reads along while the head of a request of HTTP/1.1 arrives, and refuses what two readers might frame differently: a
/// line that is folded or ends in a bare line feed, a length that comes twice, in a list or beside a transfer encoding,
/// another encoding than `chunked`, two hosts. RFC 9112, sections 2.2, 3.2, 5.2 and 6, says what is to be refused.
#pragma once

#include <string_view>

namespace dsessd {

/// Says whether one head, as it arrives, is refused. One object for one request, used by one thread.
class HeadCheck {
  public:
    /// The longest head, and the longest line of one, in bytes.
    static constexpr std::size_t kMaxHeadBytes = 16'384;
    static constexpr std::size_t kMaxLineBytes = 8'192;

    /// Checks the head as far as it has arrived. Each call gives all of it from its first byte on. Searches no byte
    /// twice. Returns the HTTP status to refuse the request with, or 0.
    int take(std::string_view head);
    /// The bytes of the whole head with its empty line; 0: it is not all there.
    std::size_t length() const { return m_length; }
    bool hasHost() const { return m_hasHost; }

  private:
    int problemOf(std::string_view line);
    bool isFramingClear(std::string_view line);

    /// Where the line begins that is arriving, and up to where there is no end of it.
    std::size_t m_line = 0;
    std::size_t m_seen = 0;
    std::size_t m_length = 0;
    bool m_hasHost = false;
    /// Whether a line said how long the body is.
    bool m_framed = false;
};

}  // namespace dsessd
