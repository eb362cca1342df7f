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
        return m_expected == nullptr || fail(std::string(m_expected->name) + " is " + what);
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
        leave();
        return true;
    }

    bool key(const char* text, std::size_t length) {
        if (m_skipped > 0) {
            return true;
        }
        Frame& frame = m_frames[m_depth - 1];
        const std::span<const Field> fields = frame.rules->fields;
        const std::string_view name(text, length);
        std::size_t index = frame.likely;
        for (std::size_t left = fields.size(); left > 0; --left, ++index) {
            index = index < fields.size() ? index : 0;
            if (isSame(name, fields[index].name)) {
                const unsigned bit = 1U << index;
                if ((frame.seen & bit) != 0) {
                    return fail("the field " + std::string(name) + " comes twice");
                }
                frame.seen |= bit;
                frame.likely = index + 1;
                m_expected = &fields[index];
                return true;
            }
        }
        m_expected = nullptr;  // a field that this client does not know
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

    /// What an object consists of, and what takes its values over once it is complete.
    struct Rules {
        std::span<const Field> fields;
        bool (AnswerHandler::*finish)();
    };

    /// An object or a list that is open.
    struct Frame {
        const Rules* rules;  // of the object
        const Field* item;   // what the list consists of; null: it is an object
        std::size_t likely;  // the field that comes next if they come in order, as in most lists
        unsigned seen;       // a bit for each field
    };

    const Rules& rules(Scope scope) const {
        using Handler = AnswerHandler;
        static constexpr Rules kRules[kScopes] = {
            {},  // of the envelope: its fields depend on the shape expected
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
        return scope == kEnvelope ? m_envelopeRules : kRules[scope];
    }

    static const Field* itemOf(Scope scope) {
        static constexpr Field kRealmItem("a record", Type::kObject, kRealm);
        static constexpr Field kMemberItem("a record", Type::kObject, kMember);
        static constexpr Field kSessionItem("a record", Type::kObject, kSession);
        static constexpr Field kNameItem("a name", &Values::name);
        return scope == kRealm     ? &kRealmItem
               : scope == kMember  ? &kMemberItem
               : scope == kSession ? &kSessionItem
                                   : &kNameItem;
    }

    bool fail(std::string problem) {
        m_problem = std::move(problem);
        return false;
    }

    template <class Keep>
    bool accept(Type type, Keep keep) {
        if (m_expected == nullptr) {
            return true;
        }
        if (m_expected->type != type) {
            return fail(std::string(m_expected->name) + " is of the wrong type");
        }
        keep(*m_expected);
        return true;
    }

    void keepText(const Field& field, char* text) {
        if (m_frames[m_depth - 1].item != nullptr) {
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
        if (m_expected == nullptr) {
            ++m_skipped;
            return true;
        }
        if (m_expected->type != type) {
            return fail(std::string(m_expected->name) + " is of the wrong type");
        }
        const Scope scope = m_expected->scope;
        if (type == Type::kObject) {
            m_realmNames = scope == kRealm ? 0 : m_realmNames;
            m_frames[m_depth++] = {&rules(scope), nullptr, 0, 0};
            m_expected = nullptr;
        } else {
            m_frames[m_depth++] = {nullptr, itemOf(scope), 0, 0};
            m_expected = itemOf(scope);
        }
        return true;
    }

    /// Of an object the next field says what is expected.
    void leave() { m_expected = --m_depth > 0 ? m_frames[m_depth - 1].item : nullptr; }

    bool leaveSkipped() {
        --m_skipped;
        return true;
    }

    bool closeObject() {
        const Frame& frame = m_frames[m_depth - 1];
        leave();
        const auto& [fields, finish] = *frame.rules;
        unsigned needed = (1U << fields.size()) - 1;
        if (frame.rules == &m_envelopeRules) {
            if (((frame.seen & kSeenResult) != 0) == ((frame.seen & kSeenError) != 0)) {
                return fail("it must hold either a result or an error");
            }
            needed &= ~(kSeenResult | kSeenError | kSeenClusterId);
        }
        if (const unsigned missing = needed & ~frame.seen; missing != 0) {
            const auto first = static_cast<std::size_t>(std::countr_zero(missing));
            return fail("the field " + std::string(fields[first].name) + " is missing");
        }
        return (this->*finish)();
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

    static constexpr Field kRoot{"the answer", Type::kObject, kEnvelope};

    const Field m_envelope[5];
    const Rules m_envelopeRules{m_envelope, &AnswerHandler::finishEnvelope};
    const std::int32_t m_requestId;
    Answer& m_answer;
    std::string m_problem;
    const Field* m_expected = &kRoot;  // where the parse stands; null: anything, to be passed over
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
