#include "catalogue/QelString.h"

#include <iconv.h>
#include <langinfo.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <optional>

#include "catalogue/QelStringRef.h"
#include "catalogue/qel_messages.h"
#include "runtime/qel_utf8.h"
#include "runtime/qel_visible.h"

namespace {

/// Converts between two encodings (iconv(3)).
class Converter {
  public:
    /// An encoding that is not known converts nothing. Throws std::bad_alloc.
    Converter(const char* to, const char* from) : m_descriptor(iconv_open(to, from)) {
        if (!isOpen() && errno == ENOMEM) {
            throw std::bad_alloc();
        }
    }
    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;
    ~Converter() {
        if (isOpen()) {
            iconv_close(m_descriptor);
        }
    }

    /// Appends `text`, converted up to the first character that cannot be. Returns how many bytes of it that took.
    std::size_t append(std::string_view text, SecretText& out) {
        if (!isOpen()) {
            return 0;
        }
        char* from = const_cast<char*>(text.data());
        std::size_t left = text.size();
        while (left > 0 && (step(&from, &left, out) || errno == E2BIG)) {
        }
        step(nullptr, nullptr, out);  // some encodings hold back a character that the next may combine with
        return text.size() - left;
    }

  private:
    bool isOpen() const noexcept { return reinterpret_cast<std::intptr_t>(m_descriptor) != -1; }

    bool step(char** from, std::size_t* left, SecretText& out) {
        std::array<char, 256> buffer;
        char* to = buffer.data();
        std::size_t room = buffer.size();
        const bool converted = iconv(m_descriptor, from, left, &to, &room) != static_cast<std::size_t>(-1);
        const int error = errno;
        out.append(buffer.data(), to);
        explicit_bzero(buffer.data(), buffer.size());
        errno = error;
        return converted;
    }

    iconv_t m_descriptor;
};

/// The locale's encoding, or null when text is left in UTF-8: in an UTF-8 locale, and in the C locale, whose ASCII says
/// nothing about what the terminal shows.
const char* foreignEncoding() {
    const char* codeset = nl_langinfo(CODESET);
    return std::strcmp(codeset, "UTF-8") == 0 || std::strcmp(codeset, "ANSI_X3.4-1968") == 0 ? nullptr : codeset;
}

SecretText fromLocale(std::string_view text) {
    const char* encoding = foreignEncoding();
    if (encoding == nullptr) {
        return SecretText(text);
    }
    Converter converter("UTF-8", encoding);
    SecretText out;
    while (!text.empty()) {
        text.remove_prefix(converter.append(text, out));
        if (!text.empty()) {
            out += text.front();
            text.remove_prefix(1);
        }
    }
    return out;
}

SecretText forDisplay(std::string_view text) {
    SecretText out(text.substr(0, qel_plain_prefix(text)));
    text.remove_prefix(out.size());
    if (text.empty() || text == "\n") {
        out += text;
        return out;
    }
    const char* encoding = foreignEncoding();
    std::optional<Converter> converter;
    if (encoding != nullptr) {
        converter.emplace(encoding, "UTF-8");
    }
    while (!text.empty() && text != "\n") {
        const QelCharacter character = qel_utf8_decode(text);
        const std::string_view bytes = text.substr(0, character.length == 0 ? 1 : character.length);
        if (character.length == 0) {
            out += qel_escape_byte(text.front()).data();
        } else if (qel_drives_terminal(character.codePoint) ||
                   (converter && converter->append(bytes, out) != bytes.size())) {
            out += qel_escape(character.codePoint).data();
        } else if (!converter) {
            out += bytes;
        }
        text.remove_prefix(bytes.size());
        const std::size_t plain = qel_plain_prefix(text);
        out += text.substr(0, plain);
        text.remove_prefix(plain);
    }
    out += text;
    return out;
}

SecretText convert(std::string_view text, QelString::Mode mode) {
    switch (mode) {
        case QelString::kFromLocale:
            return fromLocale(text);
        case QelString::kForDisplay:
            return forDisplay(text);
        case QelString::kBytes:
            break;
    }
    return SecretText(text);
}

std::string_view orEmpty(const char* text) {
    return text == nullptr ? std::string_view() : std::string_view(text);
}

}  // namespace

QelString::QelString(const char* text, Mode mode) : m_made(convert(orEmpty(text), mode)) {}

QelString::QelString(std::string_view text, Mode mode) : m_made(convert(text, mode)) {}

bool QelString::isShownAsItIs(std::string_view text) noexcept {
    return qel_plain_prefix(text) == text.size();
}

QelString::QelString(const QelStringRef& ref) : m_made(ref.view()) {}

std::uint32_t QelString::set(const char* text, Mode mode) noexcept {
    try {
        m_made = convert(orEmpty(text), mode);
        return 0;
    } catch (const std::bad_alloc&) {
        return kStatusNoMemory;
    }
}

void QelString::append(std::string_view text) {
    if (!m_made) {
        m_made.emplace(m_literal);
    }
    m_made->append(text);
}

void QelString::clear() noexcept {
    m_literal = "";
    m_made.reset();
}

std::uint32_t QelString::hash() const noexcept {
    std::uint32_t hash = 0x811C9DC5;
    for (const char byte : view()) {
        hash = (hash ^ static_cast<unsigned char>(byte)) * 0x01000193;
    }
    return hash;
}

int QelString::compare(const QelString& other) const noexcept {
    return view().compare(other.view());
}
