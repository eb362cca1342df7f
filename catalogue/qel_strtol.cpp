#include "catalogue/qel_strtol.h"

#include <charconv>
#include <string_view>

#include "catalogue/qel_messages.h"

std::uint32_t qel_strtol(const char* text, int base, std::int32_t* value) noexcept {
    if (text == nullptr || base != 10) {
        return kStatusInvalidValue;
    }
    std::string_view digits(text);
    // from_chars takes a minus sign, but no plus sign.
    if (digits.starts_with('+') && !digits.starts_with("+-")) {
        digits.remove_prefix(1);
    }
    std::int32_t number = 0;
    const char* end = digits.data() + digits.size();
    const auto [stopped, error] = std::from_chars(digits.data(), end, number, base);
    if (error != std::errc() || stopped != end) {
        return kStatusInvalidValue;
    }
    *value = number;
    return 0;
}
