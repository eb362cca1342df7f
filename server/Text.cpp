#include "server/Text.h"

#include <openssl/crypto.h>

#include <cstdint>

namespace dsessd {

namespace {

/// Length of the well-formed UTF-8 sequence that `text` begins with, 0 for none (Unicode 15, table 3-7).
std::size_t sequenceLength(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
    const auto within = [&](std::size_t i, unsigned low, unsigned high) {
        return i < text.size() && byte(i) >= low && byte(i) <= high;
    };
    const unsigned first = byte(0);
    if (first < 0x80) {
        return 1;
    }
    if (first >= 0xC2 && first <= 0xDF) {
        return within(1, 0x80, 0xBF) ? 2 : 0;
    }
    if (first >= 0xE0 && first <= 0xEF) {
        const bool second = within(1, first == 0xE0 ? 0xA0 : 0x80, first == 0xED ? 0x9F : 0xBF);
        return second && within(2, 0x80, 0xBF) ? 3 : 0;
    }
    if (first >= 0xF0 && first <= 0xF4) {
        const bool second = within(1, first == 0xF0 ? 0x90 : 0x80, first == 0xF4 ? 0x8F : 0xBF);
        return second && within(2, 0x80, 0xBF) && within(3, 0x80, 0xBF) ? 4 : 0;
    }
    return 0;
}

bool isControl(std::string_view sequence) {
    const auto first = static_cast<std::uint8_t>(sequence[0]);
    if (sequence.size() == 1) {
        return first < 0x20 || first == 0x7F;
    }
    return first == 0xC2 && static_cast<std::uint8_t>(sequence[1]) < 0xA0;
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

bool isCleanUtf8(std::string_view text) {
    while (!text.empty()) {
        const std::size_t length = sequenceLength(text);
        if (length == 0 || text[0] == '\0') {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

std::string harmless(std::string_view text, std::size_t maxBytes) {
    std::string out;
    while (!text.empty() && out.size() < maxBytes) {
        const std::size_t length = sequenceLength(text);
        const std::string_view sequence = text.substr(0, length == 0 ? 1 : length);
        if (length == 0 || isControl(sequence)) {
            appendEscaped(out, sequence);
        } else {
            out += sequence;
        }
        text.remove_prefix(sequence.size());
    }
    if (!text.empty()) {
        out += "...";
    }
    return out;
}

bool SecretString::append(std::string_view more) {
    if (more.size() > m_text.capacity() - m_text.size()) {
        return false;
    }
    m_text += more;
    return true;
}

void SecretString::wipe() {
    OPENSSL_cleanse(m_text.data(), m_text.capacity());
    m_text.clear();
}

void SecretString::popBack() {
    OPENSSL_cleanse(&m_text.back(), 1);
    m_text.pop_back();
}

}  // namespace dsessd
