/// Small helpers for text that comes from outside.
#pragma once

#include <string>
#include <string_view>

namespace dsessd {

/// `text` fit for one line of a log: control characters (C0, DEL, C1) and bytes that are no UTF-8 come out as `\xNN`,
/// and what is longer than `maxBytes` ends in an ellipsis.
std::string harmless(std::string_view text, std::size_t maxBytes = 256);

}  // namespace dsessd
