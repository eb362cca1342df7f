#include "admin/client/AnswerParser.h"

#include <rapidjson/reader.h>

#include <cstring>
#include <limits>
#include <span>
#include <string_view>

#include "admin/client/text.h"
#include "admin/protocol/protocol.h"

namespace {

namespace field = protocol::field;

/// Deeper than any answer with fields that this client does not know is likely to be.
constexpr int kMaxDepth = 64;

/// The places in an answer where a value can stand: objects by their fields, and lists by their items.
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
    kName,
    kResult,  // stands for the result's scope in the table of fields
    kScopes
};

enum class Type : std::uint8_t { kInteger, kText, kObject, kList };

struct Field {
    const char* name;
    Type type;
    Scope scope = kScopes;  // of an object, or of a list's items
};

constexpr std::size_t kMaxFields = 4;

constexpr Field kEnvelopeFields[] = {{field::kJsonRpc, Type::kText},
                                     {field::kId, Type::kInteger},
                                     {field::kResult, Type::kObject, kResult},
                                     {field::kError, Type::kObject, kError}};
constexpr unsigned kSeenResult = 1U << 2;
constexpr unsigned kSeenError = 1U << 3;
constexpr Field kErrorFields[] = {{field::kErrorCode, Type::kInteger},
                                  {field::kErrorMessage, Type::kText},
                                  {field::kErrorData, Type::kObject, kErrorData}};
constexpr Field kErrorDataFields[] = {{field::kName, Type::kText}};
constexpr Field kClusterFields[] = {
    {field::kCount, Type::kInteger}, {field::kRealms, Type::kList, kRealm}, {field::kKey, Type::kObject, kKey}};
constexpr Field kReplicaSetFields[] = {{field::kCount, Type::kInteger}, {field::kRecords, Type::kList, kMember}};
constexpr Field kKeyResultFields[] = {{field::kKey, Type::kObject, kKey}};
constexpr Field kSessionsFields[] = {
    {field::kTotal, Type::kInteger}, {field::kCount, Type::kInteger}, {field::kSessions, Type::kList, kSession}};
constexpr Field kCountFields[] = {{field::kCount, Type::kInteger}};
constexpr Field kLevelFields[] = {{field::kLevel, Type::kInteger}};
constexpr Field kRealmFields[] = {{field::kName, Type::kText}, {field::kReplicaSets, Type::kList, kName}};
constexpr Field kKeyFields[] = {
    {field::kLabel, Type::kText}, {field::kTime, Type::kInteger}, {field::kPreviousTime, Type::kInteger}};
constexpr Field kMemberFields[] = {{field::kName, Type::kText}, {field::kTime, Type::kInteger}};
constexpr Field kSessionFields[] = {
    {field::kId, Type::kText}, {field::kUser, Type::kText}, {field::kTime, Type::kInteger}};

std::span<const Field> fieldsOf(Scope scope) {
    switch (scope) {
        case kEnvelope:
            return kEnvelopeFields;
        case kError:
            return kErrorFields;
        case kErrorData:
            return kErrorDataFields;
        case kClusterResult:
            return kClusterFields;
        case kReplicaSetResult:
            return kReplicaSetFields;
        case kKeyResult:
            return kKeyResultFields;
        case kSessionsResult:
            return kSessionsFields;
        case kCountResult:
            return kCountFields;
        case kLevelResult:
            return kLevelFields;
        case kRealm:
            return kRealmFields;
        case kKey:
            return kKeyFields;
        case kMember:
            return kMemberFields;
        case kSession:
            return kSessionFields;
        default:
            return {};
    }
}

Scope resultScope(AnswerShape shape) {
    switch (shape) {
        case AnswerShape::kCluster:
            return kClusterResult;
        case AnswerShape::kReplicaSet:
            return kReplicaSetResult;
        case AnswerShape::kKey:
            return kKeyResult;
        case AnswerShape::kSessions:
            return kSessionsResult;
        case AnswerShape::kCount:
            return kCountResult;
        case AnswerShape::kLevel:
            return kLevelResult;
    }
    return kScopes;
}

/// Takes the parser's events. An event that returns false ends the parse, with the reason in problem().
class AnswerHandler {
  public:
    AnswerHandler(AnswerShape shape, std::int32_t requestId, Answer& answer)
        : m_result(resultScope(shape)), m_requestId(requestId), m_answer(answer) {}

    const std::string& problem() const { return m_problem; }

    bool Null() { return other("null"); }
    bool Bool(bool) { return other("true or false"); }
    bool Int(int number) { return integer(number); }
    bool Uint(unsigned number) { return integer(number); }
    bool Int64(std::int64_t number) { return integer(number); }
    bool Uint64(std::uint64_t) { return other("a number of more than 32 bits"); }
    bool Double(double) { return other("a number that is not a whole one"); }
    bool RawNumber(const char*, unsigned, bool) { return other("a number"); }

    bool String(const char* text, unsigned length, bool) {
        if (!isText({text, length})) {
            return fail("a string that is not UTF-8 or holds a NUL");
        }
        // Parsed in place: the text lies in the answer's own, writable storage.
        return accept(Type::kText, [&] { keepText(const_cast<char*>(text)); });
    }

    bool StartObject() { return open(Type::kObject); }
    bool StartArray() { return open(Type::kList); }
    bool EndObject(unsigned) { return m_skipped > 0 ? leaveSkipped() : closeObject(); }
    bool EndArray(unsigned) {
        if (m_skipped > 0) {
            return leaveSkipped();
        }
        --m_depth;
        return true;
    }

    bool Key(const char* text, unsigned length, bool) {
        if (m_skipped > 0) {
            return true;
        }
        Frame& frame = m_frames[m_depth - 1];
        const std::span<const Field> fields = fieldsOf(frame.scope);
        const std::string_view name(text, length);
        for (frame.field = 0; frame.field < fields.size(); ++frame.field) {
            if (name == fields[frame.field].name) {
                const unsigned bit = 1U << frame.field;
                if ((frame.seen & bit) != 0) {
                    return fail("the field " + std::string(fields[frame.field].name) + " comes twice");
                }
                frame.seen |= bit;
                return true;
            }
        }
        return true;  // a field that this client does not know: its value is passed over
    }

  private:
    struct Frame {
        Scope scope;
        bool isList;
        std::size_t field;  // the field whose value comes next
        unsigned seen;      // a bit for each field
    };
    struct Value {
        char* text;
        std::int32_t number;
    };

    bool fail(std::string problem) {
        m_problem = std::move(problem);
        return false;
    }

    /// What is expected where the parse stands: null where anything is, to be passed over.
    const Field* expected() {
        static constexpr Field kRoot{"the answer", Type::kObject, kEnvelope};
        static constexpr Field kNameItem{"a name", Type::kText, kName};
        if (m_depth == 0) {
            return &kRoot;
        }
        Frame& frame = m_frames[m_depth - 1];
        if (frame.isList) {
            if (frame.scope == kName) {
                return &kNameItem;
            }
            m_item = {"a record", Type::kObject, frame.scope};
            return &m_item;
        }
        const std::span<const Field> fields = fieldsOf(frame.scope);
        return frame.field < fields.size() ? &fields[frame.field] : nullptr;
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
        keep();
        return true;
    }

    bool other(const char* what) {
        const Field* field = m_skipped > 0 ? nullptr : expected();
        return field == nullptr || fail(std::string(field->name) + " is " + what);
    }

    bool integer(std::int64_t number) {
        if (number < std::numeric_limits<std::int32_t>::min() || number > std::numeric_limits<std::int32_t>::max()) {
            return other("a number of more than 32 bits");
        }
        return accept(Type::kInteger, [&] { slot().number = static_cast<std::int32_t>(number); });
    }

    /// Where the value of the present field goes.
    Value& slot() {
        const Frame& frame = m_frames[m_depth - 1];
        return m_values[frame.scope][frame.field];
    }

    void keepText(char* text) {
        if (m_frames[m_depth - 1].isList) {
            m_answer.replicaSetNames.append(text);
            ++m_realmNames;
        } else {
            slot().text = text;
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
        const Scope scope = field->scope == kResult ? m_result : field->scope;
        if (scope == kRealm && type == Type::kObject) {
            m_realmNames = 0;
        }
        m_frames[m_depth++] = {scope, type == Type::kList, 0, 0};
        return true;
    }

    bool leaveSkipped() {
        --m_skipped;
        return true;
    }

    bool closeObject() {
        const Frame frame = m_frames[--m_depth];
        const std::span<const Field> fields = fieldsOf(frame.scope);
        unsigned needed = (1U << fields.size()) - 1;
        if (frame.scope == kEnvelope) {
            if (((frame.seen & kSeenResult) != 0) == ((frame.seen & kSeenError) != 0)) {
                return fail("it must hold either a result or an error");
            }
            needed &= ~(kSeenResult | kSeenError);
        }
        for (std::size_t index = 0; index < fields.size(); ++index) {
            if ((needed & ~frame.seen & (1U << index)) != 0) {
                return fail("the field " + std::string(fields[index].name) + " is missing");
            }
        }
        return finish(frame.scope);
    }

    /// Takes over the values of an object that is complete.
    bool finish(Scope scope) {
        const Value* values = m_values[scope];
        switch (scope) {
            case kEnvelope:
                if (std::strcmp(values[0].text, field::kVersion) != 0) {
                    return fail("it is not JSON-RPC 2.0");
                }
                return values[1].number == m_requestId || fail("it answers another request");
            case kError:
                m_answer.errorMessage = values[1].text;
                return true;
            case kErrorData:
                m_answer.errorName = values[0].text;
                return true;
            case kKey:
                m_answer.key = {values[0].text, values[1].number, values[2].number};
                return true;
            case kRealm:
                // The names follow each other in the order of the realms; their addresses are known at the end.
                m_answer.realms.append({values[0].text, m_realmNames, nullptr});
                return true;
            case kMember:
                m_answer.members.append({values[0].text, values[1].number});
                return true;
            case kSession:
                m_answer.sessions.append({values[0].text, values[1].text, values[2].number});
                return true;
            case kClusterResult:
                return takeCount(values[0].number, m_answer.realms.size());
            case kReplicaSetResult:
                return takeCount(values[0].number, m_answer.members.size());
            case kSessionsResult:
                m_answer.total = values[0].number;
                return takeCount(values[1].number, m_answer.sessions.size()) &&
                       (m_answer.total >= m_answer.count || fail("the field total is wrong"));
            case kCountResult:
                m_answer.count = values[0].number;
                return m_answer.count >= 0 || fail("the field count is wrong");
            case kLevelResult:
                m_answer.level = values[0].number;
                return true;
            default:
                return true;
        }
    }

    bool takeCount(std::int32_t count, std::size_t records) {
        m_answer.count = count;
        return (count >= 0 && static_cast<std::size_t>(count) == records) || fail("the field count is wrong");
    }

    const Scope m_result;
    const std::int32_t m_requestId;
    Answer& m_answer;
    std::string m_problem;
    Field m_item{};
    Frame m_frames[kMaxDepth]{};
    int m_depth = 0;
    int m_skipped = 0;  // levels of a value that is passed over
    std::int32_t m_realmNames = 0;
    Value m_values[kScopes][kMaxFields]{};
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
    constexpr unsigned kFlags = rapidjson::kParseInsituFlag | rapidjson::kParseIterativeFlag;
    AnswerHandler handler(shape, requestId, answer);
    rapidjson::InsituStringStream stream(answer.text.data());
    rapidjson::Reader reader;
    const rapidjson::ParseResult result = reader.Parse<kFlags>(stream, handler);
    if (!handler.problem().empty()) {
        return handler.problem();
    }
    // The stream takes a NUL for its end: one inside the text must not hide what comes after it.
    if (result.IsError() || stream.Tell() + 1 != answer.text.size()) {
        return "it is not one whole JSON value (at byte " + std::to_string(stream.Tell()) + ")";
    }
    linkReplicaSetNames(answer);
    return {};
}
