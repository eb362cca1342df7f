/// Checks the status line and the header fields of an HTTP answer (RFC 9112, sections 4 and 5) as they arrive:
///
///     HTTP/1.1 200 OK
///     Content-Type: application/json
///     Content-Length: 123
///
/// The HTTP library parses the same bytes afterwards. This check comes first, so that refusals are in our own words and
/// the same with every version of that library. It refuses answers that two readers might take apart differently, and
/// those that no session server gives.
#pragma once

#include <cassert>
#include <cstddef>
#include <string>
#include <string_view>

namespace olmdsess {

/// The most bytes of head that one answer may have, its interim answers included.
inline constexpr std::size_t kMaxHeadBytes = std::size_t{64} * 1024;

inline constexpr char kHeadTooLong[] = "its head is too long";
inline constexpr char kNotHttp[] = "it is not HTTP/1.1";

/// Reads one head. Whoever receives it keeps its bytes together and hands in all of them each time that more have come.
class AnswerHead {
  public:
    enum class State {
        kGoesOn,   ///< it is not complete
        kInterim,  ///< it is, and another one follows (RFC 9110, section 15.2)
        kFinal     ///< it is, and its body follows
    };

    /// Checks what has arrived since the last call. `text` is everything from the head's first byte on. Throws Failure
    /// when it begins no answer, and std::bad_alloc.
    State read(std::string_view text);

    /// The length of a complete head in bytes, with its empty line.
    std::size_t size() const { return m_line; }
    /// The HTTP status of a complete head.
    int status() const {
        assert(m_status != 0);
        return m_status;
    }
    /// Whether a head with status 503 says that the server cannot reach its store (protocol::kUnavailable).
    bool lacksStore() const { return m_lacksStore; }

  private:
    void readStatus(std::string_view line);
    void readField(std::string_view line);
    void check(std::string_view name, std::string_view value);
    State finish() const;

    std::size_t m_line = 0;      // where the line in hand begins
    std::size_t m_searched = 0;  // how far its end has been looked for
    int m_status = 0;
    bool m_isOld = false;  // HTTP/1.0
    bool m_isJson = false;
    bool m_hasLength = false;
    bool m_isChunked = false;
    bool m_lacksStore = false;
    std::string m_encoding;  // of the content; empty: none
};

}  // namespace olmdsess
