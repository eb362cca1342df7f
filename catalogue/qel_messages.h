/// Names of the catalogue's message identifiers: kStatus... are returned as statuses, kMsg... are only shown.
#pragma once

#include <cstdint>

#define QEL_FAILURE(name, identifier, kinds, text) inline constexpr std::uint32_t name = 0x##identifier;
#define QEL_TEXT QEL_FAILURE
#define QEL_FIXED QEL_FAILURE
#include "catalogue/qel_messages.def"
#undef QEL_FIXED
#undef QEL_TEXT
#undef QEL_FAILURE
