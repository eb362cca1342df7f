/// What counts as text on the wire.
#pragma once

#include <string_view>

/// Whether the bytes are valid UTF-8 (RFC 3629: no overlong forms, no surrogates, nothing past U+10FFFF) without NUL.
bool isText(std::string_view bytes);
