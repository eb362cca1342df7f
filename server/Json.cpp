#include "server/Json.h"

#include <rapidjson/reader.h>

#include <string_view>
#include <unordered_set>
#include <vector>

#include "server/Text.h"

namespace dsessd {

namespace {

using rapidjson::SizeType;

/// Passes the parser's events on to a document and stops the parser at what is not accepted.
class StrictHandler {
  public:
    explicit StrictHandler(rapidjson::Document& document) : document_(document) {}

    bool Null() { return document_.Null(); }
    bool Bool(bool value) { return document_.Bool(value); }
    bool Int(int value) { return document_.Int(value); }
    bool Uint(unsigned value) { return document_.Uint(value); }
    bool Int64(int64_t value) { return document_.Int64(value); }
    bool Uint64(uint64_t value) { return document_.Uint64(value); }
    bool Double(double value) { return document_.Double(value); }
    bool RawNumber(const char*, SizeType, bool) { return false; }
    bool String(const char* text, SizeType length, bool copy) {
        return isCleanUtf8({text, length}) && document_.String(text, length, copy);
    }
    bool StartObject() {
        fields_.emplace_back();
        return deeper() && document_.StartObject();
    }
    bool Key(const char* text, SizeType length, bool copy) {
        const std::string_view name(text, length);
        return isCleanUtf8(name) && fields_.back().insert(name).second && document_.Key(text, length, copy);
    }
    bool EndObject(SizeType count) {
        fields_.pop_back();
        --depth_;
        return document_.EndObject(count);
    }
    bool StartArray() { return deeper() && document_.StartArray(); }
    bool EndArray(SizeType count) {
        --depth_;
        return document_.EndArray(count);
    }

  private:
    bool deeper() { return ++depth_ <= kMaxJsonDepth; }

    rapidjson::Document& document_;
    int depth_ = 0;
    /// The names seen so far in each open object. They lie in the text that is parsed.
    std::vector<std::unordered_set<std::string_view>> fields_;
};

}  // namespace

bool parseStrictly(char* text, rapidjson::Document& document) {
    bool parsed = false;
    const auto parse = [&](rapidjson::Document& target) {
        rapidjson::InsituStringStream stream(text);
        StrictHandler handler(target);
        rapidjson::Reader reader;
        parsed = !reader.Parse<rapidjson::kParseInsituFlag>(stream, handler).IsError();
        return parsed;
    };
    document.Populate(parse);
    return parsed;
}

}  // namespace dsessd
