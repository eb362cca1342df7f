#include "admin/client/AnswerReader.h"

#include <algorithm>
#include <bit>
#include <boost/json/basic_parser_impl.hpp>
#include <cstring>
#include <limits>
#include <span>
#include <utility>

#include "protocol/protocol.h"

namespace olmdsess {

namespace {

namespace field = protocol::field;
using boost::json::error_code;

/// Deeper than any answer with fields that this client does not know is likely to be.
constexpr int kMaxDepth = 64;
constexpr std::size_t kMaxClusterIdBytes = 64;

/// What has been read of the objects that are open. No two that can be open together share a member.
struct Values {
    char* version = nullptr;
    char* clusterId = nullptr;
    std::int32_t id = 0;
    std::int32_t errorCode = 0;
    char* errorMessage = nullptr;
    char* name = nullptr;
    char* replicaSet = nullptr;
    char* label = nullptr;
    char* sessionId = nullptr;
    char* user = nullptr;
    std::int32_t time = 0;
    std::int32_t previousTime = 0;
    std::int32_t total = 0;
    std::int32_t count = 0;
    std::int32_t level = 0;
};

/// The objects of an answer.
enum Scope : std::uint8_t {
    // The results, in the order of AnswerShape.
    kClusterResult,
    kReplicaSetResult,
    kKeyResult,
    kSessionsResult,
    kCountResult,
    kLevelResult,
    kResult,  // whichever of these is expected
    kEnvelope,
    kError,
    kErrorData,
    kRealm,
    kKey,
    kMember,
    kSession
};

enum class Type : std::uint8_t { kInteger, kText, kObject, kList };

/// A field of an object, or an item of a list: what it is, and where its value goes.
struct Field {
    constexpr Field(const char* fieldName, std::int32_t Values::*destination)
        : name(fieldName), type(Type::kInteger), number(destination) {}
    constexpr Field(const char* fieldName, char* Values::*destination)
        : name(fieldName), type(Type::kText), text(destination) {}
    constexpr Field(const char* fieldName, Scope object) : name(fieldName), type(Type::kObject), scope(object) {}
    constexpr Field(const char* fieldName, const Field& items) : name(fieldName), type(Type::kList), item(&items) {}

    std::string_view name;
    Type type;
    Scope scope = kResult;
    union {
        std::int32_t Values::*number;
        char* Values::*text;
        const Field* item = nullptr;
    };
};

constexpr Field kRoot{"the answer", kEnvelope};
constexpr Field kRealmItem{"a record", kRealm};
constexpr Field kMemberItem{"a record", kMember};
constexpr Field kSessionItem{"a record", kSession};
constexpr Field kNameItem{"a name", &Values::replicaSet};

constexpr Field kEnvelopeFields[] = {{field::kJsonRpc, &Values::version},
                                     {field::kId, &Values::id},
                                     {field::kResult, kResult},
                                     {field::kError, kError},
                                     {field::kClusterId, &Values::clusterId}};
constexpr unsigned kSeenResult = 1U << 2;
constexpr unsigned kSeenError = 1U << 3;
constexpr unsigned kSeenClusterId = 1U << 4;

constexpr Field kErrorFields[] = {{field::kErrorCode, &Values::errorCode},
                                  {field::kErrorMessage, &Values::errorMessage},
                                  {field::kErrorData, kErrorData}};
constexpr Field kErrorDataFields[] = {{field::kName, &Values::name}};
constexpr Field kClusterFields[] = {{field::kCount, &Values::count}, {field::kRealms, kRealmItem}, {field::kKey, kKey}};
constexpr Field kReplicaSetFields[] = {{field::kCount, &Values::count}, {field::kRecords, kMemberItem}};
constexpr Field kKeyResultFields[] = {{field::kKey, kKey}};
constexpr Field kSessionsFields[] = {
    {field::kTotal, &Values::total}, {field::kCount, &Values::count}, {field::kSessions, kSessionItem}};
constexpr Field kCountFields[] = {{field::kCount, &Values::count}};
constexpr Field kLevelFields[] = {{field::kLevel, &Values::level}};
constexpr Field kRealmFields[] = {{field::kName, &Values::name}, {field::kReplicaSets, kNameItem}};
constexpr Field kKeyFields[] = {
    {field::kLabel, &Values::label}, {field::kTime, &Values::time}, {field::kPreviousTime, &Values::previousTime}};
constexpr Field kMemberFields[] = {{field::kName, &Values::name}, {field::kTime, &Values::time}};
constexpr Field kSessionFields[] = {
    {field::kId, &Values::sessionId}, {field::kUser, &Values::user}, {field::kTime, &Values::time}};

constexpr std::size_t kLongestName = std::string_view(field::kPreviousTime).size();

/// By Scope.
constexpr std::span<const Field> kFields[] = {
    kClusterFields,  kReplicaSetFields, kKeyResultFields, kSessionsFields, kCountFields, kLevelFields,  {},
    kEnvelopeFields, kErrorFields,      kErrorDataFields, kRealmFields,    kKeyFields,   kMemberFields, kSessionFields};

/// Takes the parser's events (basic_parser.hpp has their list). One that returns false ends the parse.
class AnswerHandler {
  public:
    static constexpr std::size_t max_array_size = std::numeric_limits<std::size_t>::max();
    static constexpr std::size_t max_object_size = max_array_size;
    static constexpr std::size_t max_string_size = max_array_size;
    static constexpr std::size_t max_key_size = max_array_size;

    AnswerHandler(AnswerShape shape, std::int32_t requestId, Answer& answer, std::string& problem)
        : m_result(static_cast<Scope>(shape)), m_requestId(requestId), m_answer(answer), m_problem(problem) {}

    bool on_document_begin(error_code&) { return true; }
    bool on_document_end(error_code&) { return true; }
    bool on_comment_part(std::string_view, error_code&) { return true; }
    bool on_comment(std::string_view, error_code&) { return true; }

    bool on_object_begin(error_code& error) { return open(Type::kObject, error); }
    bool on_array_begin(error_code& error) { return open(Type::kList, error); }
    bool on_array_end(std::size_t, error_code&) {
        leave();
        return true;
    }
    bool on_object_end(std::size_t, error_code& error) {
        if (m_skipped > 0) {
            leave();
            return true;
        }
        const Frame& frame = m_frames[m_depth];
        leave();
        return isComplete(frame, error) && take(frame.scope, error);
    }

    bool on_key_part(std::string_view part, std::size_t, error_code& error) {
        m_key.append(part.substr(0, kLongestName + 1 - m_key.size()));
        return isText(part, error);
    }
    bool on_key(std::string_view name, std::size_t length, error_code& error) {
        Frame& frame = m_frames[m_depth];
        if (m_skipped == 0 && name.size() == length && name == frame.likely->name) {
            return expect(frame, frame.likely, error);
        }
        return find(name, length, error);
    }

    bool on_string_part(std::string_view part, std::size_t, error_code& error) {
        if (!isText(part, error) || !isOfType(Type::kText, error)) {
            return false;
        }
        if (m_expected != nullptr) {
            m_answer.texts.append(part);
        }
        return true;
    }
    bool on_string(std::string_view last, std::size_t length, error_code& error) {
        if (!on_string_part(last, length, error)) {
            return false;
        }
        if (m_expected != nullptr) {
            m_values.*m_expected->text = m_answer.texts.finish();
            if (m_expected == &kNameItem) {
                m_answer.replicaSetNames.append(m_values.replicaSet);
            }
        }
        return true;
    }

    bool on_number_part(std::string_view, error_code&) { return true; }
    bool on_int64(std::int64_t number, std::string_view, error_code& error) {
        if (number != static_cast<std::int32_t>(number)) {
            return other("a number of more than 32 bits", error);
        }
        if (!isOfType(Type::kInteger, error)) {
            return false;
        }
        if (m_expected != nullptr) {
            m_values.*m_expected->number = static_cast<std::int32_t>(number);
        }
        return true;
    }
    bool on_uint64(std::uint64_t, std::string_view, error_code& error) {
        return other("a number of more than 32 bits", error);
    }
    bool on_double(double, std::string_view, error_code& error) { return other("no integer of 32 bits", error); }
    bool on_bool(bool value, error_code& error) { return other(value ? "true" : "false", error); }
    bool on_null(error_code& error) { return other("null", error); }

  private:
    /// An object or a list that is open.
    struct Frame {
        const Field* item = &kRoot;  // what the list consists of; null: it is an object
        // Of the object:
        Scope scope = kResult;
        unsigned seen = 0;  // a bit for each field
        std::span<const Field> fields{};
        const Field* likely = nullptr;  // the field that comes next if they come in order, as in most lists
    };

    /// Refuses the answer for a reason in up to three parts. The parser only wants to know that there is one.
    [[gnu::cold]] bool fail(error_code& error, std::string_view what, std::string_view more = {},
                            std::string_view most = {}) {
        m_problem.append(what).append(more).append(most);
        error = boost::json::error::exception;
        return false;
    }

    bool isText(std::string_view text, error_code& error) {
        return std::memchr(text.data(), '\0', text.size()) == nullptr || fail(error, "a string holds a NUL");
    }
    bool isOfType(Type type, error_code& error) {
        return m_expected == nullptr || m_expected->type == type ||
               fail(error, m_expected->name, " is of the wrong type");
    }
    /// A value that no field has.
    bool other(const char* what, error_code& error) {
        return m_expected == nullptr || fail(error, m_expected->name, " is ", what);
    }

    /// The next value is that of this field.
    bool expect(Frame& frame, const Field* field, error_code& error) {
        const unsigned bit = 1U << (field - frame.fields.data());
        if ((frame.seen & bit) != 0) {
            return fail(error, "the field ", field->name, " comes twice");
        }
        frame.seen |= bit;
        frame.likely = field + (field == &frame.fields.back() ? 0 : 1);
        m_expected = field;
        return true;
    }
    /// Finds the field of this name, which may be one that this client does not know.
    [[gnu::cold]] bool find(std::string_view name, std::size_t length, error_code& error) {
        if (name.size() < length) {
            return on_key_part(name, length, error) && find(std::exchange(m_key, {}), error);
        }
        return isText(name, error) && find(name, error);
    }
    bool find(std::string_view name, error_code& error) {
        if (m_skipped > 0) {
            return true;
        }
        Frame& frame = m_frames[m_depth];
        const auto field = std::ranges::find(frame.fields, name, &Field::name);
        if (field != frame.fields.end()) {
            return expect(frame, &*field, error);
        }
        m_expected = nullptr;
        return true;
    }

    bool open(Type type, error_code& error) {
        if (!isOfType(type, error)) {
            return false;
        }
        if (m_expected == nullptr) {
            ++m_skipped;
            return true;
        }
        const Scope scope = m_expected->scope == kResult ? m_result : m_expected->scope;
        m_expected = type == Type::kList ? m_expected->item : nullptr;
        m_frames[++m_depth] = {m_expected, scope, 0, kFields[scope], kFields[scope].data()};
        return true;
    }
    void leave() {
        if (m_skipped > 0) {
            --m_skipped;
        } else {
            // Of an object the next field says what is expected.
            m_expected = m_frames[--m_depth].item;
        }
    }

    bool isComplete(const Frame& object, error_code& error) {
        unsigned missing = ((1U << object.fields.size()) - 1) & ~object.seen;
        if (object.scope == kEnvelope) {
            if (((missing & kSeenResult) != 0) == ((missing & kSeenError) != 0)) {
                return fail(error, "it must hold either a result or an error");
            }
            missing &= ~(kSeenResult | kSeenError | kSeenClusterId);
        }
        return missing == 0 || fail(error, "the field ", object.fields[std::countr_zero(missing)].name, " is missing");
    }

    /// Takes the values of an object that is complete for what the object stands for.
    bool take(Scope scope, error_code& error) {
        switch (scope) {
            case kSession:
                m_answer.sessions.append({m_values.user, m_values.sessionId, m_values.time});
                return true;
            case kMember:
                m_answer.members.append({m_values.name, m_values.time});
                return true;
            case kRealm: {
                // Where the names lie is known at the end; they follow each other in the order of the realms.
                const std::size_t names = std::exchange(m_names, m_answer.replicaSetNames.size());
                m_answer.realms.append({m_values.name, static_cast<std::int32_t>(m_names - names), nullptr});
                return true;
            }
            case kKey:
                m_answer.key = {m_values.label, m_values.time, m_values.previousTime};
                return true;
            case kErrorData:
                m_answer.errorName = m_values.name;
                return true;
            case kError:
                m_answer.errorMessage = m_values.errorMessage;
                return true;
            case kClusterResult:
                return takeCount(m_answer.realms.size(), error);
            case kReplicaSetResult:
                return takeCount(m_answer.members.size(), error);
            case kSessionsResult:
                m_answer.total = m_values.total;
                return takeCount(m_answer.sessions.size(), error) &&
                       (m_answer.total >= m_answer.count || fail(error, "the field total is wrong"));
            case kCountResult:
                return takeCount(static_cast<std::size_t>(m_values.count), error);
            case kLevelResult:
                m_answer.level = m_values.level;
                return true;
            case kEnvelope:
                return takeEnvelope(error);
            default:
                return true;
        }
    }

    bool takeCount(std::size_t records, error_code& error) {
        m_answer.count = m_values.count;
        return (m_values.count >= 0 && static_cast<std::size_t>(m_values.count) == records) ||
               fail(error, "the field count is wrong");
    }

    bool takeEnvelope(error_code& error) {
        m_answer.clusterId = m_values.clusterId;
        if (std::strcmp(m_values.version, field::kVersion) != 0) {
            return fail(error, "it is not JSON-RPC 2.0");
        }
        if (m_answer.clusterId != nullptr && std::strlen(m_answer.clusterId) > kMaxClusterIdBytes) {
            return fail(error, "the field clusterId is too long");
        }
        return m_values.id == m_requestId || fail(error, "it answers another request");
    }

    const Scope m_result;
    const std::int32_t m_requestId;
    Answer& m_answer;
    std::string& m_problem;
    const Field* m_expected = &kRoot;  // where the parse stands; null: anything, to be passed over
    Frame m_frames[8]{};               // more than an answer has; the outermost is a list of one answer
    std::size_t m_depth = 0;
    int m_skipped = 0;  // levels of a value that is passed over
    std::size_t m_names = 0;
    std::string m_key;  // what came of a field's name that comes in parts, as far as it matters
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

struct AnswerReader::Parser : boost::json::basic_parser<AnswerHandler> {
    using basic_parser::basic_parser;
};

AnswerReader::AnswerReader(AnswerShape shape, std::int32_t requestId) {
    boost::json::parse_options options;
    options.max_depth = kMaxDepth;
    m_parser = std::make_unique<Parser>(options, shape, requestId, m_answer, m_problem);
}

AnswerReader::~AnswerReader() = default;

bool AnswerReader::read(std::string_view bytes) {
    m_head += bytes.substr(0, kHeadBytes - m_head.size());
    return parse(true, bytes);
}

bool AnswerReader::finish() {
    if (m_head.empty()) {
        m_problem = "it is empty";
    }
    if (!parse(false, "")) {
        return false;
    }
    linkReplicaSetNames(m_answer);
    return true;
}

bool AnswerReader::parse(bool more, std::string_view bytes) {
    if (!m_problem.empty()) {
        return false;
    }
    error_code error;
    const std::size_t parsed = m_parser->write_some(more, bytes.data(), bytes.size(), error);
    m_bytes += parsed;
    if (m_problem.empty() && (error || parsed < bytes.size())) {
        m_problem = error == boost::json::error::too_deep
                        ? "it is nested too deeply"
                        : "it is not one whole JSON value (at byte " + std::to_string(m_bytes) + ")";
    }
    return m_problem.empty();
}

}  // namespace olmdsess
