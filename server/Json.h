/// JSON (RFC 8259) from a peer that is not trusted.
#pragma once

#include <rapidjson/document.h>

namespace dsessd {

/// The deepest nesting that is read.
inline constexpr int kMaxJsonDepth = 16;

/// Parses `text` in place: it is changed, must be NUL-terminated, and must outlive the document, whose strings lie in
/// it. False when the text is not one JSON value, nests too deeply, has a field twice in an object, or has a string or
/// field name that holds NUL or is not well-formed UTF-8.
bool parseStrictly(char* text, rapidjson::Document& document);

}  // namespace dsessd
