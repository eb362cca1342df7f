/// Reads one JSON text (RFC 8259) in place, front to back, for listings of a million records: most of their bytes are
/// passed sixteen at a time where the processor can.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace olmdsess {

/// `Handler` gets an event for each part, and ends the reading by returning false; it has to bound the nesting, since
/// the reader's own stack grows with it:
///
///     bool startObject();  bool endObject();  bool startList();  bool endList();
///     bool key(char* text, std::size_t length);
///     bool text(char* text, std::size_t length, bool isPlain);
///     bool number(std::int64_t number);
///     bool other(const char* what);   // any other value, as it is called in a message
///
/// Texts lie in what is read, NUL-terminated, their escapes resolved. A plain one is ASCII from 0x20 on; nothing
/// else has been looked at whether it is UTF-8, or has a NUL inside.
template <class Handler>
class JsonReader {
  public:
    /// Both are kept. text[size] has to be a NUL, which belongs to the reader.
    JsonReader(char* text, std::size_t size, Handler& handler) noexcept
        : m_start(text), m_at(text), m_end(text + size), m_handler(handler) {}

    /// Whether it is one JSON text, whole, and the handler took every part. Call once.
    bool read() {
        skipBlanks();
        if (!readValue()) {
            return false;
        }
        skipBlanks();
        return m_at == m_end;
    }

    /// How far it came, in bytes.
    std::size_t position() const noexcept { return static_cast<std::size_t>(m_at - m_start); }

  private:
    void skipBlanks() noexcept {
        // Most parts follow each other without any.
        while (static_cast<unsigned char>(*m_at) <= ' ' &&
               (*m_at == ' ' || *m_at == '\n' || *m_at == '\r' || *m_at == '\t')) {
            ++m_at;
        }
    }

    bool take(char byte) noexcept {
        if (*m_at != byte) {
            return false;
        }
        ++m_at;
        return true;
    }

    bool readValue() {
        switch (*m_at) {
            case '{':
                return readObject();
            case '[':
                return readList();
            case '"':
                return readText() && m_handler.text(m_text, m_textLength, m_isPlain);
            case 't':
                return readWord("true");
            case 'f':
                return readWord("false");
            case 'n':
                return readWord("null");
            default:
                return readNumber();
        }
    }

    bool readObject() {
        return m_handler.startObject() && readParts('}', [this] { return readMember(); }) && m_handler.endObject();
    }

    bool readMember() {
        if (*m_at != '"' || !readText() || !m_handler.key(m_text, m_textLength)) {
            return false;
        }
        skipBlanks();
        if (!take(':')) {
            return false;
        }
        skipBlanks();
        return readValue();
    }

    bool readList() {
        return m_handler.startList() && readParts(']', [this] { return readValue(); }) && m_handler.endList();
    }

    /// Passes the opening bracket, the parts with commas between them, and `close`.
    template <class ReadPart>
    bool readParts(char close, ReadPart readPart) {
        ++m_at;
        skipBlanks();
        if (take(close)) {
            return true;
        }
        do {
            skipBlanks();
            if (!readPart()) {
                return false;
            }
            skipBlanks();
        } while (take(','));
        return take(close);
    }

    bool readWord(const char* word) {
        for (const char* byte = word; *byte != '\0'; ++byte) {
            if (!take(*byte)) {
                return false;
            }
        }
        return m_handler.other(word);
    }

    static bool isDigit(char byte) noexcept { return byte >= '0' && byte <= '9'; }

    /// Whether there is a digit at least.
    bool skipDigits() noexcept {
        const char* first = m_at;
        while (isDigit(*m_at)) {
            ++m_at;
        }
        return m_at != first;
    }

    bool readNumber() {
        constexpr std::ptrdiff_t kDigits = std::numeric_limits<std::int64_t>::digits10;  // so many always fit
        const bool isNegative = take('-');
        const char* first = m_at;
        std::int64_t number = 0;
        while (isDigit(*m_at) && m_at - first < kDigits) {
            number = number * 10 + (*m_at++ - '0');
        }
        if (m_at - first == kDigits && skipDigits()) {
            number = std::numeric_limits<std::int64_t>::max();
        }
        if (m_at == first || (*first == '0' && m_at - first > 1)) {
            return false;
        }
        bool isWhole = true;
        if (take('.')) {
            isWhole = false;
            if (!skipDigits()) {
                return false;
            }
        }
        if (*m_at == 'e' || *m_at == 'E') {
            isWhole = false;
            ++m_at;
            if (*m_at == '+' || *m_at == '-') {
                ++m_at;
            }
            if (!skipDigits()) {
                return false;
            }
        }
        if (!isWhole) {
            return m_handler.other("a number that is not a whole one");
        }
        return m_handler.number(isNegative ? -number : number);
    }

    /// Passes printable ASCII but for quote and backslash.
    void skipPlain() noexcept {
        char* at = m_at;
#ifdef __SSE2__
        for (; m_end - at >= 16; at += 16) {
            const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
            // As signed bytes, those above 127 are less than a blank.
            const __m128i special = _mm_or_si128(
                _mm_cmplt_epi8(bytes, _mm_set1_epi8(' ')),
                _mm_or_si128(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('"')), _mm_cmpeq_epi8(bytes, _mm_set1_epi8('\\'))));
            if (const int mask = _mm_movemask_epi8(special); mask != 0) {
                m_at = at + std::countr_zero(static_cast<unsigned>(mask));
                return;
            }
        }
#endif
        while (static_cast<signed char>(*at) >= ' ' && *at != '"' && *at != '\\') {
            ++at;
        }
        m_at = at;
    }

    /// Resolves a text that begins at a quote, and passes its end.
    bool readText() noexcept {
        m_text = ++m_at;
        skipPlain();
        m_isPlain = *m_at == '"';
        char* const end = m_isPlain ? m_at : resolve();
        if (end == nullptr) {
            return false;
        }
        *end = '\0';
        m_textLength = static_cast<std::size_t>(end - m_text);
        ++m_at;
        return true;
    }

    /// Goes on behind what is plain of a text, up to its closing quote. Returns where it then ends; null: it is
    /// damaged.
    char* resolve() noexcept {
        char* to = m_at;
        while (*m_at != '"') {
            if (*m_at == '\\') {
                to = readEscape(to);
            } else if (static_cast<unsigned char>(*m_at) >= 0x80) {
                *to++ = *m_at++;
            } else {
                return nullptr;  // a control character, or the end
            }
            if (to == nullptr) {
                return nullptr;
            }
            char* const piece = m_at;
            skipPlain();
            std::memmove(to, piece, static_cast<std::size_t>(m_at - piece));
            to += m_at - piece;
        }
        return to;
    }

    /// Resolves an escape, which is never shorter than what it stands for. Returns where that ends; null: it is none.
    char* readEscape(char* to) noexcept {
        static constexpr char kNames[] = "\"\\/bfnrt";
        static constexpr char kMeanings[] = "\"\\/\b\f\n\r\t";
        ++m_at;
        if (take('u')) {
            return readCodePoint(to);
        }
        const char* name = *m_at == '\0' ? nullptr : std::strchr(kNames, *m_at);
        if (name == nullptr) {
            return nullptr;
        }
        ++m_at;
        *to = kMeanings[name - kNames];
        return to + 1;
    }

    /// Four hexadecimal digits, or -1.
    std::int32_t readUnit() noexcept {
        std::int32_t unit = 0;
        for (int digit = 0; digit < 4; ++digit, ++m_at) {
            const char lower = static_cast<char>(*m_at | 0x20);
            if (isDigit(*m_at)) {
                unit = unit * 16 + (*m_at - '0');
            } else if (lower >= 'a' && lower <= 'f') {
                unit = unit * 16 + (lower - 'a' + 10);
            } else {
                return -1;
            }
        }
        return unit;
    }

    /// Behind "\u": a code unit of UTF-16, or two that belong together (RFC 2781), as UTF-8.
    char* readCodePoint(char* to) noexcept {
        std::int32_t point = readUnit();
        if (point >= 0xD800 && point <= 0xDBFF) {
            const std::int32_t low = take('\\') && take('u') ? readUnit() : -1;
            point = low >= 0xDC00 && low <= 0xDFFF ? 0x10000 + ((point - 0xD800) << 10) + (low - 0xDC00) : -1;
        }
        if (point < 0 || (point >= 0xD800 && point <= 0xDFFF)) {
            return nullptr;
        }
        const auto put = [&to](std::int32_t byte) { *to++ = static_cast<char>(byte); };
        if (point < 0x80) {
            put(point);
            return to;
        }
        const int more = point < 0x800 ? 1 : point < 0x10000 ? 2 : 3;
        put((0xFF00 >> (more + 1) & 0xFF) | point >> 6 * more);
        for (int left = more - 1; left >= 0; --left) {
            put(0x80 | (point >> 6 * left & 0x3F));
        }
        return to;
    }

    char* const m_start;
    char* m_at;
    char* const m_end;
    Handler& m_handler;
    // The text that was read last.
    char* m_text = nullptr;
    std::size_t m_textLength = 0;
    bool m_isPlain = false;
};

}  // namespace olmdsess
