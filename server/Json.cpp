#include "server/Json.h"

#include <algorithm>
#include <boost/json/basic_parser_impl.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value_stack.hpp>
#include <limits>

namespace dsessd {

namespace {

namespace json = boost::json;
using Error = json::error_code;
using Text = std::string_view;

/// Builds a value of the parser's events (basic_parser.hpp has their list) and stops the parser at what is not
/// accepted.
class StrictHandler {
  public:
    static constexpr std::size_t max_array_size = std::numeric_limits<std::size_t>::max();
    static constexpr std::size_t max_object_size = max_array_size;
    static constexpr std::size_t max_string_size = max_array_size;
    static constexpr std::size_t max_key_size = max_array_size;

    explicit StrictHandler(const json::storage_ptr& memory) : m_stack(memory) { m_stack.reset(memory); }
    json::value release() { return m_stack.release(); }
    /// The field names that have come.
    std::size_t names() const { return m_names; }

    bool on_document_begin(Error&) { return true; }
    bool on_document_end(Error&) { return true; }
    bool on_comment_part(Text, Error&) { return true; }
    bool on_comment(Text, Error&) { return true; }
    bool on_number_part(Text, Error&) { return true; }
    bool on_object_begin(Error&) { return true; }
    bool on_array_begin(Error&) { return true; }

    bool on_object_end(std::size_t size, Error&) {
        m_stack.push_object(size);
        return true;
    }
    bool on_array_end(std::size_t size, Error&) {
        m_stack.push_array(size);
        return true;
    }
    bool on_key_part(Text part, std::size_t, Error& error) {
        m_stack.push_chars(part);
        return isText(part, error);
    }
    bool on_key(Text last, std::size_t, Error& error) {
        ++m_names;
        m_stack.push_key(last);
        return isText(last, error);
    }
    bool on_string_part(Text part, std::size_t, Error& error) { return on_key_part(part, 0, error); }
    bool on_string(Text last, std::size_t, Error& error) {
        m_stack.push_string(last);
        return isText(last, error);
    }
    bool on_int64(std::int64_t number, Text, Error&) {
        m_stack.push_int64(number);
        return true;
    }
    bool on_uint64(std::uint64_t number, Text, Error&) {
        m_stack.push_uint64(number);
        return true;
    }
    bool on_double(double number, Text, Error&) {
        m_stack.push_double(number);
        return true;
    }
    bool on_bool(bool value, Error&) {
        m_stack.push_bool(value);
        return true;
    }
    bool on_null(Error&) {
        m_stack.push_null();
        return true;
    }

  private:
    static bool isText(Text part, Error& error) {
        if (part.find('\0') != Text::npos) {
            error = json::error::syntax;
        }
        return !error;
    }

    json::value_stack m_stack;
    std::size_t m_names = 0;
};

std::size_t namesIn(const json::value& value) {
    std::size_t count = 0;
    if (const json::object* object = value.if_object()) {
        count = object->size();
        for (const auto& field : *object) {
            count += namesIn(field.value());
        }
    } else if (const json::array* array = value.if_array()) {
        for (const json::value& item : *array) {
            count += namesIn(item);
        }
    }
    return count;
}

}  // namespace

std::optional<json::value> parseStrictly(std::string_view text, JsonMemory& memory) {
    json::parse_options options;
    options.max_depth = kMaxJsonDepth;
    json::basic_parser<StrictHandler> parser(options, memory.storage());
    Error error;
    const std::size_t used = parser.write_some(false, text.data(), text.size(), error);
    if (error || used != text.size()) {
        return std::nullopt;
    }
    std::optional<json::value> value(parser.handler().release());
    // Of fields with one name in an object the value has only the last.
    return namesIn(*value) == parser.handler().names() ? std::move(value) : std::nullopt;
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
