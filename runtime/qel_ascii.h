/// ASCII letters without regard to case. The C library's functions go by the locale, and the letter I has other
/// counterparts in some.
#pragma once

#include <algorithm>
#include <string_view>

constexpr char qel_ascii_upper(char byte) {
    return byte >= 'a' && byte <= 'z' ? static_cast<char>(byte - 'a' + 'A') : byte;
}

/// Whether two texts are the same but for the case of ASCII letters.
constexpr bool qel_ascii_equal(std::string_view left, std::string_view right) {
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](char one, char other) { return qel_ascii_upper(one) == qel_ascii_upper(other); });
}
