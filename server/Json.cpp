#include "server/Json.h"

#include <rapidjson/reader.h>

#include <string_view>
#include <unordered_set>
#include <vector>

#include "runtime/qel_utf8.h"

namespace dsessd {

namespace {

using rapidjson::SizeType;

/// Passes the parser's events on to a document and stops the parser at what is not accepted.
class StrictHandler {
  public:
    explicit StrictHandler(JsonDocument& document) : m_document(document) {}

    bool Null() { return m_document.Null(); }
    bool Bool(bool value) { return m_document.Bool(value); }
    bool Int(int value) { return m_document.Int(value); }
    bool Uint(unsigned value) { return m_document.Uint(value); }
    bool Int64(int64_t value) { return m_document.Int64(value); }
    bool Uint64(uint64_t value) { return m_document.Uint64(value); }
    bool Double(double value) { return m_document.Double(value); }
    bool RawNumber(const char*, SizeType, bool) { return false; }
    bool String(const char* text, SizeType length, bool copy) {
        return qel_utf8_is_text({text, length}) && m_document.String(text, length, copy);
    }
    bool StartObject() {
        m_fields.emplace_back();
        return deeper() && m_document.StartObject();
    }
    bool Key(const char* text, SizeType length, bool copy) {
        const std::string_view name(text, length);
        return qel_utf8_is_text(name) && m_fields.back().insert(name).second && m_document.Key(text, length, copy);
    }
    bool EndObject(SizeType count) {
        m_fields.pop_back();
        --m_depth;
        return m_document.EndObject(count);
    }
    bool StartArray() { return deeper() && m_document.StartArray(); }
    bool EndArray(SizeType count) {
        --m_depth;
        return m_document.EndArray(count);
    }

  private:
    bool deeper() { return ++m_depth <= kMaxJsonDepth; }

    JsonDocument& m_document;
    int m_depth = 0;
    /// The names seen so far in each open object. They lie in the text that is parsed.
    std::vector<std::unordered_set<std::string_view>> m_fields;
};

}  // namespace

bool parseStrictly(char* text, JsonDocument& document) {
    bool parsed = false;
    const auto parse = [&](JsonDocument& target) {
        rapidjson::InsituStringStream stream(text);
        StrictHandler handler(target);
        rapidjson::GenericReader<rapidjson::UTF8<>, rapidjson::UTF8<>, QelJsonAllocator> reader;
        parsed = !reader.Parse<rapidjson::kParseInsituFlag>(stream, handler).IsError();
        return parsed;
    };
    document.Populate(parse);
    return parsed;
}

}  // namespace dsessd
