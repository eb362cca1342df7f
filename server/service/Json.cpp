#include "server/service/Json.h"

#include <algorithm>
#include <boost/json/parser.hpp>
#include <boost/json/serialize.hpp>

namespace dsessd {

namespace {

namespace json = boost::json;

/// Counts the field names in the text of a value: each has a colon behind it, and outside of texts there is no other
/// colon.
std::size_t namesIn(std::string_view text) {
    std::size_t count = 0;
    bool isInside = false;
    for (std::size_t at = 0; at < text.size(); ++at) {
        if (isInside && text[at] == '\\') {
            ++at;
        } else if (text[at] == '"') {
            isInside = !isInside;
        } else if (text[at] == ':' && !isInside) {
            ++count;
        }
    }
    return count;
}

bool hasNul(std::string_view text) {
    return text.find('\0') != text.npos;
}

/// Counts the field names in a value and all that is in it. A name that an object has twice was read once and counts
/// once. Returns nothing when a name or text holds a NUL.
std::optional<std::size_t> namesIn(const json::value& value) {
    std::size_t count = 0;
    const auto add = [&](const json::value& part) {
        const auto more = namesIn(part);
        count += more.value_or(0);
        return more.has_value();
    };
    bool isText = true;
    if (const json::object* object = value.if_object()) {
        count = object->size();
        isText = std::all_of(object->begin(), object->end(),
                             [&](const auto& field) { return !hasNul(field.key()) && add(field.value()); });
    } else if (const json::array* array = value.if_array()) {
        isText = std::all_of(array->begin(), array->end(), add);
    } else if (const json::string* text = value.if_string()) {
        isText = !hasNul(*text);
    }
    return isText ? std::optional(count) : std::nullopt;
}

}  // namespace

std::optional<json::value> parseStrictly(std::string_view text, JsonMemory& memory) {
    json::parse_options options;
    options.max_depth = kMaxJsonDepth;
    json::parser parser(memory.storage(), options);
    parser.reset(memory.storage());
    boost::system::error_code error;
    parser.write(text, error);
    if (error) {
        return std::nullopt;
    }
    std::optional<json::value> value(parser.release());
    return namesIn(*value) == namesIn(text) ? std::move(value) : std::nullopt;
}

void appendQuoted(std::string& out, std::string_view text) {
    const bool isPlain = std::none_of(
        text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == '"' || c == '\\'; });
    if (isPlain) {
        out.append(1, '"').append(text).append(1, '"');
    } else {
        out += json::serialize(json::string_view(text));
    }
}

}  // namespace dsessd
