#include "admin/client/answer/AnswerReader.h"

#include <algorithm>
#include <bit>
#include <boost/json/basic_parser_impl.hpp>
#include <cstring>
#include <span>
#include <utility>
#include <variant>

#include "protocol/protocol.h"

namespace olmdsess {

namespace {

namespace field = protocol::field;
using boost::json::error_code;

/// Deeper than any answer with fields that this client does not know is likely to be.
constexpr std::size_t kMaxDepth = 64;
constexpr std::size_t kMaxClusterIdBytes = 64;

/// What has been read of the objects that are open. No two that can be open together share a member.
struct Values {
    char *version, *clusterId, *errorMessage, *name, *replicaSet, *label, *sessionId, *user;
    std::int32_t id, errorCode, time, previousTime, total, count, level;
};

/// The objects of an answer; first the results, in the order of AnswerShape.
enum Scope : std::uint8_t {
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

/// A field of an object, or an item of a list.
struct Field {
    std::string_view name;
    /// Where a number or a text goes, which object it is, or what a list consists of.
    std::variant<std::int32_t Values::*, char * Values::*, Scope, const Field*> kind;
};

constexpr Field kAnswer{"the answer", kEnvelope};
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
constexpr Field kClusterFields[] = {
    {field::kCount, &Values::count}, {field::kRealms, &kRealmItem}, {field::kKey, kKey}};
constexpr Field kReplicaSetFields[] = {{field::kCount, &Values::count}, {field::kRecords, &kMemberItem}};
constexpr Field kKeyResultFields[] = {{field::kKey, kKey}};
constexpr Field kSessionsFields[] = {
    {field::kTotal, &Values::total}, {field::kCount, &Values::count}, {field::kSessions, &kSessionItem}};
constexpr Field kCountFields[] = {{field::kCount, &Values::count}};
constexpr Field kLevelFields[] = {{field::kLevel, &Values::level}};
constexpr Field kRealmFields[] = {{field::kName, &Values::name}, {field::kReplicaSets, &kNameItem}};
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
    static constexpr std::size_t max_array_size = -1, max_object_size = -1, max_string_size = -1, max_key_size = -1;

    AnswerHandler(AnswerShape shape, std::int32_t requestId, Answer& answer, std::string& problem)
        : m_result(static_cast<Scope>(shape)), m_requestId(requestId), m_answer(answer), m_problem(problem) {}

    bool on_document_begin(error_code&) { return true; }
    bool on_document_end(error_code&) { return true; }
    bool on_comment_part(std::string_view, error_code&) { return true; }
    bool on_comment(std::string_view, error_code&) { return true; }

    bool on_object_begin(error_code& error) {
        const auto* wanted = expected<Scope>(error);
        if (wanted != nullptr) {
            const Scope scope = *wanted == kResult ? m_result : *wanted;
            m_expected = nullptr;
            *++m_open = {nullptr, scope, 0, kFields[scope]};
        }
        return passes(wanted);
    }
    bool on_array_begin(error_code& error) {
        const auto* wanted = expected<const Field*>(error);
        if (wanted != nullptr) {
            m_expected = *wanted;
            *++m_open = {m_expected, kResult, 0, {}};
        }
        return passes(wanted);
    }
    bool on_array_end(std::size_t, error_code&) { return leave(); }
    bool on_object_end(std::size_t, error_code& error) {
        const Frame& object = *m_open;
        return (m_skipped > 0 || (isComplete(object, error) && take(object.scope, error))) && leave();
    }

    bool on_key_part(std::string_view part, std::size_t length, error_code& error) {
        m_key.resize(length > part.size() ? m_key.size() : 0);  // a new one
        m_key.append(part.substr(0, kLongestName + 1 - m_key.size()));
        return isText(part, error);
    }
    bool on_key(std::string_view name, std::size_t length, error_code& error) {
        if (name.size() < length) {
            if (!on_key_part(name, length, error)) {
                return false;
            }
            name = m_key;
        }
        if (m_skipped > 0) {
            return isText(name, error);
        }
        Frame& object = *m_open;
        for (std::size_t index = 0; index < object.fields.size(); ++index) {
            if (object.fields[index].name == name) {
                const unsigned bit = 1U << index;
                m_expected = &object.fields[index];
                object.seen ^= bit;
                return (object.seen & bit) != 0 || fail(error, "the field ", name, " comes twice");
            }
        }
        m_expected = nullptr;  // a field that this client does not know
        return isText(name, error);
    }

    bool on_string_part(std::string_view part, std::size_t, error_code& error) {
        const bool isWanted = expected<char * Values::*>(error) != nullptr;
        if (isWanted) {
            m_answer.texts.append(part);
        }
        return (isWanted || m_expected == nullptr) && isText(part, error);
    }
    bool on_string(std::string_view last, std::size_t length, error_code& error) {
        if (!on_string_part(last, length, error)) {
            return false;
        }
        if (m_expected != nullptr) {
            char* const text = m_answer.texts.finish();
            m_values.*std::get<char * Values::*>(m_expected->kind) = text;
            if (m_expected == &kNameItem) {
                m_answer.replicaSetNames.append(text);
            }
        }
        return true;
    }

    bool on_number_part(std::string_view, error_code&) { return true; }
    bool on_int64(std::int64_t number, std::string_view, error_code& error) {
        const auto* wanted = expected<std::int32_t Values::*>(error);
        if (wanted == nullptr) {
            return m_expected == nullptr;
        }
        m_values.** wanted = static_cast<std::int32_t>(number);
        return number == static_cast<std::int32_t>(number) || other("a number of more than 32 bits", error);
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
        const Field* item = &kAnswer;  // what the list consists of; null: it is an object
        // Of the object:
        Scope scope = kResult;
        unsigned seen = 0;  // a bit for each field
        std::span<const Field> fields{};
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
    /// The kind that the value at hand has to be of. Null: any value, to be passed over, or another kind, which fails.
    template <class Kind>
    const Kind* expected(error_code& error) {
        const Kind* kind = m_expected == nullptr ? nullptr : std::get_if<Kind>(&m_expected->kind);
        if (kind == nullptr && m_expected != nullptr) {
            fail(error, m_expected->name, " is of the wrong type");
        }
        return kind;
    }
    /// Takes a value of a kind that no known field has.
    bool other(const char* what, error_code& error) {
        return m_expected == nullptr || fail(error, m_expected->name, " is ", what);
    }

    /// An object or a list has been opened, which counts if it is not `wanted`.
    bool passes(const void* wanted) {
        m_skipped += wanted == nullptr ? 1 : 0;
        return m_problem.empty();
    }
    bool leave() {
        if (m_skipped > 0) {
            --m_skipped;
        } else {
            m_expected = (--m_open)->item;  // of an object, the next name tells what is expected
        }
        return true;
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
            case kEnvelope:
                m_answer.clusterId = m_values.clusterId;
                return takeEnvelope(error);
            case kError:
                m_answer.errorMessage = m_values.errorMessage;
                return true;
            case kErrorData:
                m_answer.errorName = m_values.name;
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
            case kMember:
                m_answer.members.append({m_values.name, m_values.time});
                return true;
            case kSession:
                m_answer.sessions.append({m_values.user, m_values.sessionId, m_values.time});
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
            default:
                return true;
        }
    }

    bool takeEnvelope(error_code& error) {
        if (std::strcmp(m_values.version, field::kVersion) != 0) {
            return fail(error, "it is not JSON-RPC 2.0");
        }
        if (m_values.clusterId != nullptr && std::strlen(m_values.clusterId) > kMaxClusterIdBytes) {
            return fail(error, "the field clusterId is too long");
        }
        return m_values.id == m_requestId || fail(error, "it answers another request");
    }

    bool takeCount(std::size_t records, error_code& error) {
        m_answer.count = m_values.count;
        return (m_values.count >= 0 && static_cast<std::size_t>(m_values.count) == records) ||
               fail(error, "the field count is wrong");
    }

    const Scope m_result;
    const std::int32_t m_requestId;
    Answer& m_answer;
    std::string& m_problem;
    const Field* m_expected = &kAnswer;  // where the parse stands; null: anything, to be passed over
    Frame m_frames[8]{};                 // more than an answer has; the outermost is a list of one answer
    Frame* m_open = m_frames;            // the innermost one
    std::size_t m_skipped = 0;           // levels of a value that is passed over
    std::size_t m_names = 0;             // of replica sets, in the realms that are complete
    std::string m_key;                   // what came of a field's name that comes in parts, as far as it matters
    Values m_values{};
};

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
    return parse(true, bytes);
}

bool AnswerReader::finish() {
    if (m_head.empty()) {
        m_problem = "it is empty";
    }
    if (!parse(false, "")) {
        return false;
    }
    char** names = m_answer.replicaSetNames.data();
    for (olm_dsess_admin_realm_t& realm : m_answer.realms) {
        realm.replica_set_names = realm.replica_set_count == 0 ? nullptr : names;
        names += realm.replica_set_count;
    }
    return true;
}

bool AnswerReader::parse(bool more, std::string_view bytes) {
    if (!m_problem.empty()) {
        return false;
    }
    m_head += bytes.substr(0, kHeadBytes - m_head.size());
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
