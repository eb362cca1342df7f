/// Small helpers for text that comes from outside.
#pragma once

#include <string>
#include <string_view>

namespace dsessd {

/// `text` fit for one line of a log: what could drive a terminal (qel_visible.h) and bytes that are no UTF-8 are made
/// visible, and what is longer than `maxBytes` ends in an ellipsis.
std::string harmless(std::string_view text, std::size_t maxBytes = 256);

}  // namespace dsessd
