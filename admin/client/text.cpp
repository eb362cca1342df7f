#include "admin/client/text.h"

#include <cstdint>
#include <cstring>

namespace {

constexpr std::uint64_t kOnes = 0x0101010101010101U;
constexpr std::uint64_t kHighBits = 0x8080808080808080U;

/// Whether eight bytes are all between 1 and 127.
bool isPlain(const char* bytes) {
    std::uint64_t word;
    std::memcpy(&word, bytes, sizeof word);
    return (((word - kOnes) | word) & kHighBits) == 0;
}

/// Length of the UTF-8 sequence at the front of `bytes`, 0 when there is none.
std::size_t sequenceLength(std::string_view bytes) {
    const auto byte = [&](std::size_t index) { return static_cast<unsigned char>(bytes[index]); };
    const unsigned char first = byte(0);
    if (first < 0x80) {
        return first == 0 ? 0 : 1;
    }
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || bytes.size() < length) {
        return 0;
    }
    // Bounds of the second byte that exclude overlong forms, surrogates and what lies past U+10FFFF.
    const unsigned char low = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
    const unsigned char high = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
    if (byte(1) < low || byte(1) > high) {
        return 0;
    }
    for (std::size_t index = 2; index < length; ++index) {
        if ((byte(index) & 0xC0) != 0x80) {
            return 0;
        }
    }
    return length;
}

}  // namespace

bool isText(std::string_view bytes) {
    while (!bytes.empty()) {
        if (bytes.size() >= 8 && isPlain(bytes.data())) {
            bytes.remove_prefix(8);
            continue;
        }
        const std::size_t length = sequenceLength(bytes);
        if (length == 0) {
            return false;
        }
        bytes.remove_prefix(length);
    }
    return true;
}
