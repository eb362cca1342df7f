#include "server/store/Loader.h"

#include <algorithm>
#include <array>
#include <boost/json/basic_parser_impl.hpp>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "runtime/qel_utf8.h"
#include "server/log/Text.h"
#include "server/store/ClusterShapes.h"

namespace dsessd {

namespace {

namespace json = boost::json;
using Error = boost::system::error_code;

/// How far the reading is.
struct Place {
    std::size_t line = 1;
    std::uint64_t bytes = 0;
};

constexpr std::size_t kReadBytes = 65'536;

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

    const ObjectShape& rule() const { return kObjects[kind]; }
};

/// Walks through kObjects with the parser's events (basic_parser.hpp has their list) and stores each object at its end,
/// so that only those are kept that are still open.
class ClusterHandler {
  public:
    static constexpr std::size_t max_array_size = std::numeric_limits<std::size_t>::max();
    static constexpr std::size_t max_object_size = max_array_size;
    static constexpr std::size_t max_string_size = max_array_size;
    static constexpr std::size_t max_key_size = max_array_size;

    ClusterHandler(Store& store, Seconds now, const LoadProgress& progress, const Place& place)
        : m_replacement(store.replace()), m_now(now), m_progress(progress), m_place(place) {}

    bool on_document_begin(Error&) { return true; }
    bool on_document_end(Error&) { return true; }
    bool on_comment_part(std::string_view, Error&) { return true; }
    bool on_comment(std::string_view, Error&) { return true; }
    bool on_number_part(std::string_view, Error&) { return true; }
    bool on_double(double, std::string_view, Error& error) { return other(error); }
    bool on_bool(bool, Error& error) { return other(error); }
    bool on_null(Error& error) { return other(error); }
    bool on_int64(std::int64_t value, std::string_view, Error& error) { return did(integer(value), error); }
    bool on_uint64(std::uint64_t, std::string_view, Error& error) { return did(fail("is too large a number"), error); }
    bool on_string_part(std::string_view part, std::size_t, Error& error) { return did(append(part), error); }
    bool on_string(std::string_view last, std::size_t, Error& error) { return did(append(last) && text(), error); }
    bool on_key_part(std::string_view part, std::size_t, Error& error) { return did(append(part), error); }
    bool on_key(std::string_view last, std::size_t, Error& error) { return did(append(last) && key(), error); }
    bool on_array_begin(Error& error) { return did(beginList(), error); }
    bool on_array_end(std::size_t, Error&) {
        m_open.back().element.reset();
        return valueEnds();
    }
    bool on_object_begin(Error& error) { return did(beginObject(), error); }
    bool on_object_end(std::size_t, Error& error) { return did(endObject(), error); }

    LoadCounts finish() {
        if (!storeSessions()) {
            throw LoadError(m_line, m_problem);
        }
        if (m_progress) {
            m_progress(m_place.bytes, m_counts, true);
        }
        m_replacement->commit();
        return m_counts;
    }
    /// Why an event was refused; empty: none was.
    const std::string& problem() const { return m_problem; }
    std::size_t line() const { return m_line; }

  private:
    static bool did(bool done, Error& error) {
        if (!done) {
            error = json::error::syntax;
        }
        return done;
    }

    bool other(Error& error) { return did(fail("is neither text nor a whole number nor a list"), error); }

    /// To the name or text that is being read.
    bool append(std::string_view part) {
        m_text += part;
        return m_text.size() <= longest() || failForText();
    }

    bool text() {
        const std::string value = std::exchange(m_text, {});
        if (!expects(longest() == kMaxNameBytes ? FieldKind::kText : FieldKind::kLongText)) {
            return false;
        }
        if ((value.empty() && longest() == kMaxNameBytes) || !qel_utf8_is_text(value)) {
            return failForText();
        }
        m_open.back().texts[m_open.back().field] = value;
        return valueEnds();
    }

    bool key() {
        OpenObject& object = m_open.back();
        const auto fields = object.rule().fields;
        const std::string name = std::exchange(m_text, {});
        const auto found =
            std::find_if(fields.begin(), fields.end(), [&](const auto& rule) { return rule.name == name; });
        if (found == fields.end()) {
            return fail("has a field \"" + harmless(name, 64) + "\", which " + std::string(object.rule().name) +
                        " does not have");
        }
        object.field = static_cast<std::size_t>(found - fields.begin());
        return !std::exchange(object.seen[object.field], true) || fail("comes twice");
    }

    bool beginList() {
        if (!expects(FieldKind::kList)) {
            return false;
        }
        m_open.back().element = 0;
        if (fieldNow()->element == kAdministrator) {
            m_replacement->clearAdministrators();
            m_counts.administrators = 0;
        }
        return true;
    }

    bool beginObject() {
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

    bool endObject() {
        if (!isComplete() || !store(m_open.back())) {
            return false;
        }
        m_open.pop_back();
        if (!m_open.empty()) {
            ++*m_open.back().element;
        }
        if (m_progress && ++m_stored % 4096 == 0) {
            m_progress(m_place.bytes, m_counts, false);
        }
        return true;
    }

    /// The field whose value is being read, if any.
    const FieldShape* fieldNow() const {
        const bool isAny = !m_open.empty() && m_open.back().field != kMaxFields;
        return isAny ? &m_open.back().rule().fields[m_open.back().field] : nullptr;
    }

    std::size_t longest() const {
        const FieldShape* field = fieldNow();
        return field != nullptr && field->kind == FieldKind::kLongText ? kMaxLongTextBytes : kMaxNameBytes;
    }

    bool failForText() {
        return fail("is empty, longer than " + std::to_string(longest()) + " bytes, or not UTF-8 without NUL");
    }

    bool fail(const std::string& why) {
        m_line = m_place.line;
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

    bool expects(FieldKind kind) {
        if (m_open.empty()) {
            return fail("is not an object");
        }
        const OpenObject& object = m_open.back();
        if (object.element) {
            return fail("is something other than an object");
        }
        return fieldNow()->kind == kind || fail("is of the wrong type");
    }

    bool integer(std::int64_t value) {
        if (!expects(FieldKind::kInteger)) {
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
            const FieldShape& field = object.rule().fields[i];
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
                return setCluster(name, object.integers[1]);
            case kAdministrator:
                return addAdministrator(object);
            case kChange:
                m_replacement->addChange({name, object.texts[1], object.texts[2]}, object.texts[3]);
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
                m_places.emplace_back(m_place.line, where());
                ++m_counts.sessions;
                return m_sessions.size() < kSessionsAtOnce || storeSessions();
        }
        return isNew || fail(comesTwice(object.rule().name, name));
    }

    bool setCluster(const std::string& id, std::optional<std::int64_t> level) {
        if (id.size() > kMaxClusterIdBytes) {
            return fail("has an id that is longer than " + std::to_string(kMaxClusterIdBytes) + " bytes");
        }
        if (level && (*level < 0 || *level > kMaxTraceLevel)) {
            return fail("has a traceLevel that is not between 0 and " + std::to_string(kMaxTraceLevel));
        }
        m_replacement->setCluster(id, level ? std::optional(static_cast<int>(*level)) : std::nullopt);
        return true;
    }

    bool addAdministrator(const OpenObject& object) {
        const std::string& role = object.texts[2];
        if (role != nameOf(Role::kRead) && role != nameOf(Role::kChange)) {
            return fail("has a role that is neither read nor change");
        }
        ++*m_counts.administrators;
        return m_replacement->addAdministrator(
                   {object.texts[0], object.texts[1], role == nameOf(Role::kRead) ? Role::kRead : Role::kChange}) ||
               fail(comesTwice(object.rule().name, object.texts[0]));
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
    const Place& m_place;
    /// The name or text that is being read.
    std::string m_text;
    std::vector<OpenObject> m_open;
    std::int64_t m_lastNumber = 0;
    std::int64_t m_stored = 0;
    LoadCounts m_counts;
    std::string m_problem;
    std::size_t m_line = 0;
};

}  // namespace

LoadCounts loadCluster(std::istream& input, Store& store, Seconds now, const LoadProgress& progress) {
    Place place;
    json::parse_options options;
    options.allow_invalid_utf8 = true;  // the handler says where it is
    json::basic_parser<ClusterHandler> parser(options, store, now, progress, place);
    std::vector<char> buffer(kReadBytes);
    Error error;
    do {
        input.read(buffer.data(), static_cast<std::streamsize>(buffer.size()));
        std::string_view rest(buffer.data(), static_cast<std::size_t>(input.gcount()));
        // Line by line, so that the handler knows which it is.
        for (std::size_t used = 0; !rest.empty() && !error; rest.remove_prefix(used)) {
            const std::string_view line = rest.substr(0, rest.find('\n') + 1);
            used = line.empty() ? rest.size() : line.size();
            if (parser.write_some(true, rest.data(), used, error) < used && !error) {
                error = json::error::extra_data;
            }
            place.bytes += used;
            place.line += line.empty() || error ? 0 : 1;
        }
    } while (input && !error);
    if (input.bad()) {
        throw LoadError(place.line, "reading failed");
    }
    if (!error) {
        parser.write_some(false, "", 0, error);
    }
    if (!parser.handler().problem().empty()) {
        throw LoadError(parser.handler().line(), parser.handler().problem());
    }
    if (error) {
        throw LoadError(place.line, error.message());
    }
    return parser.handler().finish();
}

}  // namespace dsessd
