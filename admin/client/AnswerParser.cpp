#include "admin/client/AnswerParser.h"

#include <bit>
#include <cstring>
#include <limits>
#include <span>
#include <string_view>

#include "admin/client/JsonReader.h"
#include "protocol/protocol.h"
#include "runtime/qel_utf8.h"

namespace olmdsess {

namespace {

namespace field = protocol::field;

/// Deeper than any answer with fields that this client does not know is likely to be.
constexpr int kMaxDepth = 64;

/// What has been read of the objects that are open. No two that can be open together share a member.
struct Values {
    char* version = nullptr;
    char* clusterId = nullptr;
    std::int32_t id = 0;
    std::int32_t errorCode = 0;
    char* errorMessage = nullptr;
    char* name = nullptr;
    char* label = nullptr;
    char* sessionId = nullptr;
    char* user = nullptr;
    std::int32_t time = 0;
    std::int32_t previousTime = 0;
    std::int32_t total = 0;
    std::int32_t count = 0;
    std::int32_t level = 0;
};

/// The objects of an answer; of a list, the objects that are its items.
enum Scope : std::uint8_t {
    kEnvelope,
    kError,
    kErrorData,
    kClusterResult,
    kReplicaSetResult,
    kKeyResult,
    kSessionsResult,
    kCountResult,
    kLevelResult,
    kRealm,
    kKey,
    kMember,
    kSession,
    kName,  // a text, not an object
    kScopes
};

enum class Type : std::uint8_t { kInteger, kText, kObject, kList };

/// A field of an object, or an item of a list: what it is, and where its value goes.
struct Field {
    constexpr Field(const char* fieldName, std::int32_t Values::*destination)
        : name(fieldName), type(Type::kInteger), number(destination) {}
    constexpr Field(const char* fieldName, char* Values::*destination)
        : name(fieldName), type(Type::kText), text(destination) {}
    constexpr Field(const char* fieldName, Type objectOrList, Scope inner)
        : name(fieldName), type(objectOrList), scope(inner) {}

    std::string_view name;
    Type type;
    std::int32_t Values::*number = nullptr;
    char* Values::*text = nullptr;
    Scope scope = kScopes;  // of an object, or of a list's items
};

constexpr Field kErrorFields[] = {{field::kErrorCode, &Values::errorCode},
                                  {field::kErrorMessage, &Values::errorMessage},
                                  {field::kErrorData, Type::kObject, kErrorData}};
constexpr Field kErrorDataFields[] = {{field::kName, &Values::name}};
constexpr Field kClusterFields[] = {
    {field::kCount, &Values::count}, {field::kRealms, Type::kList, kRealm}, {field::kKey, Type::kObject, kKey}};
constexpr Field kReplicaSetFields[] = {{field::kCount, &Values::count}, {field::kRecords, Type::kList, kMember}};
constexpr Field kKeyResultFields[] = {{field::kKey, Type::kObject, kKey}};
constexpr Field kSessionsFields[] = {
    {field::kTotal, &Values::total}, {field::kCount, &Values::count}, {field::kSessions, Type::kList, kSession}};
constexpr Field kCountFields[] = {{field::kCount, &Values::count}};
constexpr Field kLevelFields[] = {{field::kLevel, &Values::level}};
constexpr Field kRealmFields[] = {{field::kName, &Values::name}, {field::kReplicaSets, Type::kList, kName}};
constexpr Field kKeyFields[] = {
    {field::kLabel, &Values::label}, {field::kTime, &Values::time}, {field::kPreviousTime, &Values::previousTime}};
constexpr Field kMemberFields[] = {{field::kName, &Values::name}, {field::kTime, &Values::time}};
constexpr Field kSessionFields[] = {
    {field::kId, &Values::sessionId}, {field::kUser, &Values::user}, {field::kTime, &Values::time}};

constexpr unsigned kSeenResult = 1U << 2;
constexpr unsigned kSeenError = 1U << 3;
constexpr unsigned kSeenClusterId = 1U << 4;

constexpr Scope kResultScopes[] = {kClusterResult,  kReplicaSetResult, kKeyResult,
                                   kSessionsResult, kCountResult,      kLevelResult};  // by AnswerShape

/// Takes the parser's events. An event that returns false ends the parse, with the reason in problem().
class AnswerHandler {
  public:
    AnswerHandler(AnswerShape shape, std::int32_t requestId, Answer& answer)
        : m_envelope{{field::kJsonRpc, &Values::version},
                     {field::kId, &Values::id},
                     {field::kResult, Type::kObject, kResultScopes[static_cast<std::size_t>(shape)]},
                     {field::kError, Type::kObject, kError},
                     {field::kClusterId, &Values::clusterId}},
          m_requestId(requestId),
          m_answer(answer) {}

    const std::string& problem() const { return m_problem; }

    bool other(const char* what) {
        const Field* field = m_skipped > 0 ? nullptr : expected();
        return field == nullptr || fail(std::string(field->name) + " is " + what);
    }

    bool number(std::int64_t number) {
        if (number < std::numeric_limits<std::int32_t>::min() || number > std::numeric_limits<std::int32_t>::max()) {
            return other("a number of more than 32 bits");
        }
        return accept(Type::kInteger,
                      [&](const Field& field) { m_values.*field.number = static_cast<std::int32_t>(number); });
    }

    bool text(char* text, std::size_t length, bool isPlain) {
        if (!isPlain && !qel_utf8_is_text({text, length})) {
            return fail("a string that is not UTF-8 or holds a NUL");
        }
        return accept(Type::kText, [&](const Field& field) { keepText(field, text); });
    }

    bool startObject() { return open(Type::kObject); }
    bool startList() { return open(Type::kList); }
    bool endObject() { return m_skipped > 0 ? leaveSkipped() : closeObject(); }
    bool endList() {
        if (m_skipped > 0) {
            return leaveSkipped();
        }
        --m_depth;
        return true;
    }

    bool key(const char* text, std::size_t length) {
        if (m_skipped > 0) {
            return true;
        }
        Frame& frame = m_frames[m_depth - 1];
        const std::string_view name(text, length);
        std::size_t index = frame.field + 1;  // objects of a list mostly have their fields in one order
        for (std::size_t left = frame.fields.size(); left > 0; --left, ++index) {
            index = index < frame.fields.size() ? index : 0;
            if (isSame(name, frame.fields[index].name)) {
                const unsigned bit = 1U << index;
                if ((frame.seen & bit) != 0) {
                    return fail("the field " + std::string(name) + " comes twice");
                }
                frame.seen |= bit;
                frame.field = index;
                return true;
            }
        }
        frame.field = kNoField;  // one that this client does not know: its value is passed over
        return true;
    }

  private:
    /// Without the call that comparing costs otherwise, which is dear for a name of a few letters.
    static bool isSame(std::string_view left, std::string_view right) {
        std::size_t index = 0;
        while (index < left.size() && index < right.size() && left[index] == right[index]) {
            ++index;
        }
        return index == left.size() && index == right.size();
    }

    static constexpr std::size_t kNoField = std::numeric_limits<std::size_t>::max();

    struct Frame {
        Scope scope;
        bool isList;
        unsigned seen;                  // a bit for each field
        std::span<const Field> fields;  // of an object
        std::size_t field;              // the one whose value comes next
    };
    /// What an object consists of, and what takes its values over once it is complete.
    struct Rules {
        std::span<const Field> fields;
        bool (AnswerHandler::*finish)();
    };

    Rules rules(Scope scope) const {
        using Handler = AnswerHandler;
        static constexpr Rules kRules[kScopes] = {
            {{}, &Handler::finishEnvelope},  // its fields depend on the shape expected
            {kErrorFields, &Handler::finishError},
            {kErrorDataFields, &Handler::finishErrorData},
            {kClusterFields, &Handler::finishCluster},
            {kReplicaSetFields, &Handler::finishReplicaSet},
            {kKeyResultFields, &Handler::finishKeyResult},
            {kSessionsFields, &Handler::finishSessions},
            {kCountFields, &Handler::finishCount},
            {kLevelFields, &Handler::finishLevel},
            {kRealmFields, &Handler::finishRealm},
            {kKeyFields, &Handler::finishKey},
            {kMemberFields, &Handler::finishMember},
            {kSessionFields, &Handler::finishSession},
            {},
        };
        return scope == kEnvelope ? Rules{m_envelope, kRules[kEnvelope].finish} : kRules[scope];
    }

    bool fail(std::string problem) {
        m_problem = std::move(problem);
        return false;
    }

    /// What is expected where the parse stands: null where anything is, to be passed over.
    const Field* expected() {
        static constexpr Field kRoot{"the answer", Type::kObject, kEnvelope};
        static constexpr Field kNameItem{"a name", &Values::name};
        if (m_depth == 0) {
            return &kRoot;
        }
        Frame& frame = m_frames[m_depth - 1];
        if (frame.isList) {
            if (frame.scope == kName) {
                return &kNameItem;
            }
            m_item = Field("a record", Type::kObject, frame.scope);
            return &m_item;
        }
        return frame.field < frame.fields.size() ? &frame.fields[frame.field] : nullptr;
    }

    template <class Keep>
    bool accept(Type type, Keep keep) {
        if (m_skipped > 0) {
            return true;
        }
        const Field* field = expected();
        if (field == nullptr) {
            return true;
        }
        if (field->type != type) {
            return fail(std::string(field->name) + " is of the wrong type");
        }
        keep(*field);
        return true;
    }

    void keepText(const Field& field, char* text) {
        if (m_frames[m_depth - 1].isList) {
            m_answer.replicaSetNames.append(text);
            ++m_realmNames;
        } else {
            m_values.*field.text = text;
        }
    }

    bool open(Type type) {
        if (m_depth + m_skipped >= kMaxDepth) {
            return fail("it is nested too deeply");
        }
        const Field* field = m_skipped > 0 ? nullptr : expected();
        if (field == nullptr) {
            ++m_skipped;
            return true;
        }
        if (field->type != type) {
            return fail(std::string(field->name) + " is of the wrong type");
        }
        if (field->scope == kRealm && type == Type::kObject) {
            m_realmNames = 0;
        }
        const bool isList = type == Type::kList;
        m_frames[m_depth++] = {field->scope, isList, 0, isList ? std::span<const Field>() : rules(field->scope).fields,
                               kNoField};
        return true;
    }

    bool leaveSkipped() {
        --m_skipped;
        return true;
    }

    bool closeObject() {
        const Frame& frame = m_frames[--m_depth];
        unsigned needed = (1U << frame.fields.size()) - 1;
        if (frame.scope == kEnvelope) {
            if (((frame.seen & kSeenResult) != 0) == ((frame.seen & kSeenError) != 0)) {
                return fail("it must hold either a result or an error");
            }
            needed &= ~(kSeenResult | kSeenError | kSeenClusterId);
        }
        if (const unsigned missing = needed & ~frame.seen; missing != 0) {
            const auto first = static_cast<std::size_t>(std::countr_zero(missing));
            return fail("the field " + std::string(frame.fields[first].name) + " is missing");
        }
        return (this->*rules(frame.scope).finish)();
    }

    bool finishEnvelope() {
        if (std::strcmp(m_values.version, field::kVersion) != 0) {
            return fail("it is not JSON-RPC 2.0");
        }
        m_answer.clusterId = m_values.clusterId;
        return m_values.id == m_requestId || fail("it answers another request");
    }
    bool finishError() {
        m_answer.errorMessage = m_values.errorMessage;
        return true;
    }
    bool finishErrorData() {
        m_answer.errorName = m_values.name;
        return true;
    }
    bool finishKey() {
        m_answer.key = {m_values.label, m_values.time, m_values.previousTime};
        return true;
    }
    bool finishRealm() {
        // The names follow each other in the order of the realms; their addresses are known at the end.
        m_answer.realms.append({m_values.name, m_realmNames, nullptr});
        return true;
    }
    bool finishMember() {
        m_answer.members.append({m_values.name, m_values.time});
        return true;
    }
    bool finishSession() {
        m_answer.sessions.append({m_values.user, m_values.sessionId, m_values.time});
        return true;
    }
    bool finishCluster() { return takeCount(m_answer.realms.size()); }
    bool finishReplicaSet() { return takeCount(m_answer.members.size()); }
    bool finishKeyResult() { return true; }
    bool finishSessions() {
        m_answer.total = m_values.total;
        return takeCount(m_answer.sessions.size()) &&
               (m_answer.total >= m_answer.count || fail("the field total is wrong"));
    }
    bool finishCount() {
        m_answer.count = m_values.count;
        return m_answer.count >= 0 || fail("the field count is wrong");
    }
    bool finishLevel() {
        m_answer.level = m_values.level;
        return true;
    }

    bool takeCount(std::size_t records) {
        m_answer.count = m_values.count;
        return (m_values.count >= 0 && static_cast<std::size_t>(m_values.count) == records) ||
               fail("the field count is wrong");
    }

    const Field m_envelope[5];
    const std::int32_t m_requestId;
    Answer& m_answer;
    std::string m_problem;
    Field m_item{"", Type::kObject, kScopes};
    Frame m_frames[kMaxDepth]{};
    int m_depth = 0;
    int m_skipped = 0;  // levels of a value that is passed over
    std::int32_t m_realmNames = 0;
    Values m_values;
};

void linkReplicaSetNames(Answer& answer) {
    char** names = answer.replicaSetNames.data();
    for (std::size_t index = 0; index < answer.realms.size(); ++index) {
        olm_dsess_admin_realm_t& realm = answer.realms.data()[index];
        realm.replica_set_names = realm.replica_set_count == 0 ? nullptr : names;
        names += realm.replica_set_count;
    }
}

}  // namespace

std::string parseAnswer(AnswerShape shape, std::int32_t requestId, Answer& answer) {
    if (answer.text.size() < 2) {
        return "it is empty";
    }
    AnswerHandler handler(shape, requestId, answer);
    JsonReader reader(answer.text.data(), answer.text.size() - 1, handler);
    if (!reader.read()) {
        return !handler.problem().empty()
                   ? handler.problem()
                   : "it is not one whole JSON value (at byte " + std::to_string(reader.position()) + ")";
    }
    linkReplicaSetNames(answer);
    return {};
}

}  // namespace olmdsess
