/// JSON (RFC 8259) from a peer that is not trusted.
#pragma once

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "runtime/QelJsonAllocator.h"

namespace dsessd {

using JsonDocument =
    rapidjson::GenericDocument<rapidjson::UTF8<>, rapidjson::MemoryPoolAllocator<QelJsonAllocator>, QelJsonAllocator>;
using JsonValue = JsonDocument::ValueType;
using JsonBuffer = rapidjson::GenericStringBuffer<rapidjson::UTF8<>, QelJsonAllocator>;
using JsonWriter = rapidjson::Writer<JsonBuffer, rapidjson::UTF8<>, rapidjson::UTF8<>, QelJsonAllocator>;

/// The deepest nesting that is read.
inline constexpr int kMaxJsonDepth = 16;

/// Parses `text` in place: it is changed, must be NUL-terminated, and must outlive the document, whose strings lie in
/// it. False when the text is not one JSON value, nests too deeply, has a field twice in an object, or has a string or
/// field name that holds NUL or is not well-formed UTF-8.
bool parseStrictly(char* text, JsonDocument& document);

}  // namespace dsessd
