#include "runtime/qel_utf8.h"

#include <cassert>
#include <cstring>

namespace {

/// Whether eight bytes are all between 1 and 127.
bool isPlain(const char* bytes) {
    constexpr std::uint64_t kOnes = 0x0101010101010101U;
    constexpr std::uint64_t kHighBits = 0x8080808080808080U;
    std::uint64_t word;
    std::memcpy(&word, bytes, sizeof word);
    return (((word - kOnes) | word) & kHighBits) == 0;
}

inline QelCharacter decode(std::string_view text) {
    const auto byte = [&](std::size_t index) { return static_cast<unsigned char>(text[index]); };
    const unsigned char first = byte(0);
    if (first < 0x80) {
        return {first, 1};
    }
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < length) {
        return {};
    }
    // Bounds of the second byte that exclude overlong forms, surrogates and what lies above U+10FFFF.
    const unsigned char low = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
    const unsigned char high = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
    if (byte(1) < low || byte(1) > high) {
        return {};
    }
    std::uint32_t codePoint = (first & (0x7FU >> length)) << 6 | (byte(1) & 0x3FU);
    for (std::size_t index = 2; index < length; ++index) {
        if ((byte(index) & 0xC0) != 0x80) {
            return {};
        }
        codePoint = codePoint << 6 | (byte(index) & 0x3FU);
    }
    return {codePoint, length};
}

}  // namespace

QelCharacter qel_utf8_decode(std::string_view text) noexcept {
    assert(!text.empty());
    return decode(text);
}

bool qel_utf8_is_text(std::string_view bytes) noexcept {
    while (!bytes.empty()) {
        if (bytes.size() >= 8 && isPlain(bytes.data())) {
            bytes.remove_prefix(8);
            continue;
        }
        const std::size_t length = bytes[0] == '\0' ? 0 : decode(bytes).length;
        if (length == 0) {
            return false;
        }
        bytes.remove_prefix(length);
    }
    return true;
}
