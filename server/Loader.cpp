#include "server/Loader.h"

#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>

#include <algorithm>
#include <array>
#include <limits>
#include <optional>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

#include "runtime/QelJsonAllocator.h"
#include "runtime/qel_utf8.h"
#include "server/Text.h"

namespace dsessd {

namespace {

using rapidjson::SizeType;

/// RapidJSON's input stream concept over a C++ stream, counting lines.
class CountingStream {
  public:
    using Ch = char;
    explicit CountingStream(std::istream& input) : m_input(input) { fill(); }

    Ch Peek() const { return m_at == m_end ? '\0' : m_buffer[m_at]; }
    Ch Take() {
        const Ch c = Peek();
        if (m_at == m_end) {
            return c;
        }
        if (c == '\n') {
            ++m_line;
        }
        if (++m_at == m_end) {
            fill();
        }
        return c;
    }
    std::size_t Tell() const { return m_before + m_at; }
    std::size_t line() const { return m_line; }
    /// A NUL in the text looks like the end to the parser.
    bool atEnd() const { return m_at == m_end; }

    // Of the concept, for streams that are written to.
    Ch* PutBegin() { return nullptr; }
    void Put(Ch) {}
    void Flush() {}
    std::size_t PutEnd(Ch*) { return 0; }

  private:
    void fill() {
        m_before += m_end;
        m_input.read(m_buffer.data(), static_cast<std::streamsize>(m_buffer.size()));
        m_end = static_cast<std::size_t>(m_input.gcount());
        m_at = 0;
    }

    std::istream& m_input;
    std::vector<char> m_buffer = std::vector<char>(65'536);
    std::size_t m_at = 0;
    std::size_t m_end = 0;
    std::size_t m_before = 0;
    std::size_t m_line = 1;
};

/// What may stand where: the kinds of objects in a cluster file and their fields.
enum Object : unsigned char { kCluster, kKey, kRealm, kReplicaSet, kMember, kSession };
enum class Kind : unsigned char { kText, kInteger, kList };

struct FieldRule {
    std::string_view name;
    Kind kind;
    bool required;
    /// Of what a list is.
    Object element;
};

constexpr FieldRule kClusterFields[] = {{"keys", Kind::kList, false, kKey}, {"realms", Kind::kList, true, kRealm}};
constexpr FieldRule kKeyFields[] = {
    {"label", Kind::kText, true, {}}, {"time", Kind::kInteger, false, {}}, {"age", Kind::kInteger, false, {}}};
constexpr FieldRule kRealmFields[] = {{"name", Kind::kText, true, {}},
                                      {"replicaSets", Kind::kList, false, kReplicaSet},
                                      {"sessions", Kind::kList, false, kSession}};
constexpr FieldRule kReplicaSetFields[] = {{"name", Kind::kText, true, {}}, {"members", Kind::kList, false, kMember}};
constexpr FieldRule kMemberFields[] = {
    {"name", Kind::kText, true, {}}, {"time", Kind::kInteger, false, {}}, {"age", Kind::kInteger, false, {}}};
constexpr FieldRule kSessionFields[] = {{"id", Kind::kText, true, {}},
                                        {"user", Kind::kText, true, {}},
                                        {"time", Kind::kInteger, false, {}},
                                        {"age", Kind::kInteger, false, {}}};

struct ObjectRule {
    std::string_view name;
    std::span<const FieldRule> fields;
    bool timed;
};

constexpr std::array<ObjectRule, 6> kObjects{{{"a cluster", kClusterFields, false},
                                              {"a key", kKeyFields, true},
                                              {"a realm", kRealmFields, false},
                                              {"a replica set", kReplicaSetFields, false},
                                              {"a member", kMemberFields, true},
                                              {"a session", kSessionFields, true}}};

constexpr std::size_t kMaxFields = 4;
constexpr std::size_t kSessionsAtOnce = 500;
constexpr std::size_t kMaxTextBytes = 65'536;

/// An object whose end has not come yet.
struct OpenObject {
    Object kind;
    /// Ties the parts to their whole.
    std::int64_t number = 0;
    std::array<bool, kMaxFields> seen{};
    std::array<std::string, kMaxFields> texts{};
    std::array<std::optional<std::int64_t>, kMaxFields> integers{};
    /// The field that is being read, and in a list the element.
    std::size_t field = kMaxFields;
    std::optional<std::size_t> element{};

    const ObjectRule& rule() const { return kObjects[kind]; }
};

/// A text is far longer than any that is taken.
struct TextTooLong {};

/// Where RapidJSON puts the text that it is reading.
struct BoundedAllocator : QelJsonAllocator {
    void* Realloc(void* block, std::size_t oldSize, std::size_t size) {
        return size > kMaxTextBytes ? throw TextTooLong() : QelJsonAllocator::Realloc(block, oldSize, size);
    }
};

/// Walks through kObjects with the parser's events and stores each object at its end, so that only those are kept that
/// are still open.
class ClusterHandler : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, ClusterHandler> {
  public:
    ClusterHandler(Store& store, Seconds now, const LoadProgress& progress, const CountingStream& stream)
        : m_replacement(store.replace()), m_now(now), m_progress(progress), m_stream(stream) {}

    bool Default() { return fail("is neither text nor a whole number nor a list"); }
    bool Int(int value) { return integer(value); }
    bool Uint(unsigned value) { return integer(value); }
    bool Int64(std::int64_t value) { return integer(value); }
    bool Uint64(std::uint64_t) { return fail("is too large a number"); }

    bool String(const char* bytes, SizeType length, bool) {
        const std::string_view value(bytes, length);
        if (!expects(Kind::kText)) {
            return false;
        }
        if (value.empty() || value.size() > kMaxNameBytes || !qel_utf8_is_text(value)) {
            return failForText();
        }
        m_open.back().texts[m_open.back().field] = value;
        return valueEnds();
    }

    bool Key(const char* bytes, SizeType length, bool) {
        OpenObject& object = m_open.back();
        const auto fields = object.rule().fields;
        const std::string_view name(bytes, length);
        const auto found =
            std::find_if(fields.begin(), fields.end(), [&](const auto& rule) { return rule.name == name; });
        if (found == fields.end()) {
            return fail("has a field \"" + harmless(name, 64) + "\", which " + std::string(object.rule().name) +
                        " does not have");
        }
        object.field = static_cast<std::size_t>(found - fields.begin());
        return !std::exchange(object.seen[object.field], true) || fail("comes twice");
    }

    bool StartArray() {
        if (!expects(Kind::kList)) {
            return false;
        }
        m_open.back().element = 0;
        return true;
    }

    bool EndArray(SizeType) {
        m_open.back().element.reset();
        return valueEnds();
    }

    bool StartObject() {
        if (m_open.empty()) {
            m_open.push_back({kCluster});
            return true;
        }
        const OpenObject& parent = m_open.back();
        if (!parent.element) {
            return fail("is an object where there should be none");
        }
        OpenObject child{parent.rule().fields[parent.field].element};
        child.number = ++m_lastNumber;
        m_open.push_back(std::move(child));
        return true;
    }

    bool EndObject(SizeType) {
        if (!isComplete() || !store(m_open.back())) {
            return false;
        }
        m_open.pop_back();
        if (!m_open.empty()) {
            ++*m_open.back().element;
        }
        if (m_progress && ++m_stored % 4096 == 0) {
            m_progress(m_stream.Tell(), m_counts);
        }
        return true;
    }

    LoadCounts finish() {
        if (!storeSessions()) {
            throw LoadError(m_line, m_problem);
        }
        m_replacement->commit();
        return m_counts;
    }
    bool failForText() {
        return fail("is empty, longer than " + std::to_string(kMaxNameBytes) + " bytes, or not UTF-8 without NUL");
    }
    const std::string& problem() const { return m_problem; }
    std::size_t line() const { return m_line; }

  private:
    bool fail(const std::string& why) {
        m_line = m_stream.line();
        m_problem = where() + " " + why;
        return false;
    }

    /// What is being read, such as `realms[1].sessions[3].user`.
    std::string where() const {
        std::string path;
        for (const OpenObject& object : m_open) {
            if (object.field != kMaxFields) {
                path += (path.empty() ? "" : ".") + std::string(object.rule().fields[object.field].name);
            }
            if (object.element) {
                path += "[" + std::to_string(*object.element) + "]";
            }
        }
        return path.empty() ? "the cluster" : path;
    }

    bool expects(Kind kind) {
        if (m_open.empty()) {
            return fail("is not an object");
        }
        const OpenObject& object = m_open.back();
        if (object.element) {
            return fail("is something other than an object");
        }
        return object.rule().fields[object.field].kind == kind || fail("is of the wrong type");
    }

    bool integer(std::int64_t value) {
        if (!expects(Kind::kInteger)) {
            return false;
        }
        m_open.back().integers[m_open.back().field] = value;
        return valueEnds();
    }

    bool valueEnds() {
        m_open.back().field = kMaxFields;
        return true;
    }

    bool isComplete() {
        const OpenObject& object = m_open.back();
        for (std::size_t i = 0; i < object.rule().fields.size(); ++i) {
            const FieldRule& field = object.rule().fields[i];
            if (field.required && !object.seen[i]) {
                return fail("lacks the field \"" + std::string(field.name) + "\"");
            }
        }
        return true;
    }

    /// The time of an object, whose last two fields are "time" and "age".
    bool timeOf(const OpenObject& object, Seconds& time) {
        const auto& absolute = object.integers[object.rule().fields.size() - 2];
        const auto& age = object.integers[object.rule().fields.size() - 1];
        if (absolute.has_value() == age.has_value()) {
            return fail("needs one of the fields \"time\" and \"age\"");
        }
        constexpr std::int64_t kLatest = std::numeric_limits<Seconds>::max();
        if ((age && (*age < 0 || *age > m_now)) || (absolute && (*absolute < 0 || *absolute > kLatest))) {
            return fail("has a time that is not between 0 and " + std::to_string(kLatest));
        }
        time = static_cast<Seconds>(absolute ? *absolute : m_now - *age);
        return true;
    }

    /// Keeps the object that ends, as a part of the one around it.
    bool store(const OpenObject& object) {
        const std::int64_t parent = m_open.size() < 2 ? 0 : m_open[m_open.size() - 2].number;
        const std::string& name = object.texts[0];
        Seconds time = 0;
        if (object.rule().timed && !timeOf(object, time)) {
            return false;
        }
        bool isNew = true;
        switch (object.kind) {
            case kCluster:
                break;
            case kKey:
                isNew = m_replacement->addKey(name, time);
                ++m_counts.keys;
                break;
            case kRealm:
                isNew = m_replacement->addRealm(object.number, name);
                ++m_counts.realms;
                break;
            case kReplicaSet:
                isNew = m_replacement->addReplicaSet(object.number, parent, name);
                ++m_counts.replicaSets;
                break;
            case kMember:
                isNew = m_replacement->addMember(parent, {name, time});
                ++m_counts.members;
                break;
            case kSession:
                m_sessions.push_back({parent, name, object.texts[1], time});
                m_places.emplace_back(m_stream.line(), where());
                ++m_counts.sessions;
                return m_sessions.size() < kSessionsAtOnce || storeSessions();
        }
        return isNew || fail(comesTwice(object.rule().name, name));
    }

    static std::string comesTwice(std::string_view kind, std::string_view name) {
        return "is " + std::string(kind) + " \"" + harmless(name, 64) + "\" that comes twice";
    }

    bool storeSessions() {
        if (const auto twice = m_replacement->addSessions(m_sessions)) {
            m_line = m_places[*twice].first;
            m_problem = m_places[*twice].second + " " + comesTwice(kObjects[kSession].name, m_sessions[*twice].id);
            return false;
        }
        m_sessions.clear();
        m_places.clear();
        return true;
    }

    std::unique_ptr<Store::Replacement> m_replacement;
    /// Those that are not stored yet, and for each its line and path.
    std::vector<NewSession> m_sessions;
    std::vector<std::pair<std::size_t, std::string>> m_places;
    const Seconds m_now;
    const LoadProgress& m_progress;
    const CountingStream& m_stream;
    std::vector<OpenObject> m_open;
    std::int64_t m_lastNumber = 0;
    std::int64_t m_stored = 0;
    LoadCounts m_counts;
    std::string m_problem;
    std::size_t m_line = 0;
};

}  // namespace

LoadCounts loadCluster(std::istream& input, Store& store, Seconds now, const LoadProgress& progress) {
    CountingStream stream(input);
    ClusterHandler handler(store, now, progress, stream);
    rapidjson::GenericReader<rapidjson::UTF8<>, rapidjson::UTF8<>, BoundedAllocator> reader;
    rapidjson::ParseResult result;
    try {
        result = reader.Parse<rapidjson::kParseIterativeFlag>(stream, handler);
    } catch (const TextTooLong&) {
        handler.failForText();
        result.Set(rapidjson::kParseErrorTermination);
    }
    if (input.bad()) {
        throw LoadError(stream.line(), "reading failed");
    }
    if (result.IsError()) {
        if (result.Code() == rapidjson::kParseErrorTermination) {
            throw LoadError(handler.line(), handler.problem());
        }
        throw LoadError(stream.line(), rapidjson::GetParseError_En(result.Code()));
    }
    if (!stream.atEnd()) {
        throw LoadError(stream.line(), "a NUL byte");
    }
    return handler.finish();
}

}  // namespace dsessd
