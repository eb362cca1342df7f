#include "runtime/qel_visible.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr auto kPlain = [] {
    std::array<bool, 256> plain{};
    for (std::size_t byte = 0x20; byte < 0x7F; ++byte) {
        plain[byte] = true;
    }
    plain['\t'] = true;
    return plain;
}();

std::array<char, 16> format(const char* form, unsigned value) {
    std::array<char, 16> text;
    std::snprintf(text.data(), text.size(), form, value);
    return text;
}

}  // namespace

bool qel_drives_terminal(std::uint32_t codePoint) noexcept {
    return codePoint < 0x20 || (codePoint >= 0x7F && codePoint <= 0x9F) || codePoint == 0x61C || codePoint == 0x200E ||
           codePoint == 0x200F || (codePoint >= 0x2028 && codePoint <= 0x202E) ||
           (codePoint >= 0x2066 && codePoint <= 0x2069);
}

std::size_t qel_plain_prefix(std::string_view text) noexcept {
    constexpr std::uint64_t kEach = 0x0101010101010101;
    std::size_t length = 0;
    for (std::uint64_t eight = 0; length + sizeof(eight) <= text.size(); length += sizeof(eight)) {
        std::memcpy(&eight, text.data() + length, sizeof(eight));
        // Eight bytes at once. Subtracting 0x20 sets a byte's high bit if it was a control character, adding 1 if it
        // was 0x7F, and above 0x7F it is set already.
        if ((((eight - 0x20 * kEach) | (eight + kEach) | eight) & (0x80 * kEach)) != 0) {
            break;
        }
    }
    while (length < text.size() && kPlain[static_cast<unsigned char>(text[length])]) {
        ++length;
    }
    return length;
}

std::array<char, 16> qel_escape(std::uint32_t codePoint) noexcept {
    return format(codePoint < 0x80 ? "\\x%02X" : "\\u{%04X}", codePoint);
}

std::array<char, 16> qel_escape_byte(char byte) noexcept {
    return format("\\x%02X", static_cast<unsigned char>(byte));
}
