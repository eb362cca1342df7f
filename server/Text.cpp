#include "server/Text.h"

#include <cstdint>

#include "runtime/qel_utf8.h"

namespace dsessd {

namespace {

bool isControl(std::uint32_t codePoint) {
    return codePoint < 0x20 || (codePoint >= 0x7F && codePoint < 0xA0);
}

void appendEscaped(std::string& out, std::string_view bytes) {
    static constexpr char kHex[] = "0123456789abcdef";
    for (const char c : bytes) {
        const auto byte = static_cast<std::uint8_t>(c);
        out += "\\x";
        out += kHex[byte >> 4];
        out += kHex[byte & 15];
    }
}

}  // namespace

std::string harmless(std::string_view text, std::size_t maxBytes) {
    std::string out;
    while (!text.empty() && out.size() < maxBytes) {
        const QelCharacter character = qel_utf8_decode(text);
        const std::string_view bytes = text.substr(0, character.length == 0 ? 1 : character.length);
        if (character.length == 0 || isControl(character.codePoint)) {
            appendEscaped(out, bytes);
        } else {
            out += bytes;
        }
        text.remove_prefix(bytes.size());
    }
    if (!text.empty()) {
        out += "...";
    }
    return out;
}

}  // namespace dsessd
