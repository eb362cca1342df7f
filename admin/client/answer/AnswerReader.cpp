#include "admin/client/answer/AnswerReader.h"

#include <unistd.h>

#include <algorithm>
#include <boost/json/basic_parser_impl.hpp>
#include <cassert>
#include <cstring>
#include <iterator>
#include <span>
#include <utility>
#include <variant>

#include "admin/client/base/Failure.h"
#include "protocol/protocol.h"

namespace olmdsess {

namespace {

namespace field = protocol::field;
using boost::system::error_code;

/// Deeper than any answer with fields that this client does not know is likely to be.
constexpr std::size_t kMaxDepth = 64;
constexpr std::size_t kMaxClusterIdBytes = 64;
constexpr std::size_t kMostKeptBytes = std::size_t{2} << 30;
// An answer may have bytes that are not kept: 256 MiB, and eight times as many as are kept. A session takes less than
// that, even where each character of its texts is escaped.
constexpr std::uint64_t kPassedOver = std::uint64_t{256} << 20;
constexpr std::uint64_t kPassedOverPerKept = 8;

Failure listingTooLong(const std::string& what, std::size_t mostKept) {
    return {kStatusListingTooLong, what + ", and there is room for " +
                                       std::to_string(mostKept / AnswerReader::kSessionBytes) + " in " +
                                       std::to_string(mostKept >> 20) + " MiB"};
}

// How an answer is taken apart. The parser reports each brace, name and value to AnswerHandler while the bytes come,
// and tables say which fields an object has and where each value goes. Of
//
//     {"jsonrpc": "2.0", "id": 7, "result": {"count": 1, "records": [{"name": "node1", "time": 5}]}}
//
// kEnvelopeFields sends "2.0" to Values::version and has "result" open the object that the request asked for, here
// kReplicaSetResult. Its kReplicaSetFields send 1 to Values::count, and say that each item of "records" is the object
// kMember, whose fields go to Values::name and Values::time. When an object closes, all its fields must have come, and
// AnswerHandler::take moves their values to the Answer. A field that no table has is passed over, whatever is in it.
//
// For a new field, add a line to a table and a member to Values; for a new object also a Scope and its case in take.

/// What has been read of the objects that are open. No two that can be open together share a member.
struct Values {
    char *version, *clusterId, *errorMessage, *name, *replicaSet, *label, *sessionId, *user;
    std::int32_t id, errorCode, time, previousTime, total, count, level;
};

/// The objects of an answer.
enum Scope : std::uint8_t {
    kClusterResult = static_cast<std::uint8_t>(AnswerShape::kCluster),
    kReplicaSetResult = static_cast<std::uint8_t>(AnswerShape::kReplicaSet),
    kKeyResult = static_cast<std::uint8_t>(AnswerShape::kKey),
    kSessionsResult = static_cast<std::uint8_t>(AnswerShape::kSessions),
    kCountResult = static_cast<std::uint8_t>(AnswerShape::kCount),
    kLevelResult = static_cast<std::uint8_t>(AnswerShape::kLevel),
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
    bool isOptional = false;
};

constexpr Field kAnswer{"the answer", kEnvelope};
constexpr Field kRealmItem{"a record", kRealm};
constexpr Field kMemberItem{"a record", kMember};
constexpr Field kSessionItem{"a record", kSession};
constexpr Field kNameItem{"a name", &Values::replicaSet};

constexpr Field kEnvelopeFields[] = {{field::kJsonRpc, &Values::version},
                                     {field::kId, &Values::id},
                                     {field::kResult, kResult, true},  // this one, or the next
                                     {field::kError, kError, true},
                                     {field::kClusterId, &Values::clusterId, true}};

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
static_assert(std::size(kFields) == kSession + 1);

/// Takes the parser's events (basic_parser.hpp has their list). One that returns false ends the parse.
class AnswerHandler {
  public:
    static constexpr std::size_t max_array_size = -1, max_object_size = -1, max_string_size = -1, max_key_size = -1;

    AnswerHandler(AnswerShape shape, std::int32_t requestId, std::size_t mostKept, Answer& answer)
        : m_result(static_cast<Scope>(shape)), m_requestId(requestId), m_mostKept(mostKept), m_answer(answer) {}

    bool on_document_begin(error_code&) { return true; }
    bool on_document_end(error_code&) { return true; }
    bool on_comment_part(std::string_view, error_code&) { return true; }
    bool on_comment(std::string_view, error_code&) { return true; }

    bool on_object_begin(error_code&) {
        if (const auto* wanted = expected<Scope>()) {
            m_hasResult = m_hasResult || *wanted == kResult;
            const Scope scope = *wanted == kResult ? m_result : *wanted;
            m_expected = nullptr;
            open({nullptr, scope, 0, kFields[scope]});
        } else {
            ++m_skipped;
        }
        return true;
    }
    bool on_array_begin(error_code&) {
        if (const auto* wanted = expected<const Field*>()) {
            m_expected = *wanted;
            if (m_expected == &kSessionItem) {
                limitCount();
            }
            open({m_expected, kResult, 0, {}});
        } else {
            ++m_skipped;
        }
        return true;
    }
    bool on_array_end(std::size_t, error_code&) { return leave(); }
    bool on_object_end(std::size_t, error_code&) {
        if (m_skipped == 0) {
            requireFields(*m_open);
            take(m_open->scope);
        }
        return leave();
    }

    bool on_key_part(std::string_view part, std::size_t length, error_code&) {
        m_key.resize(length > part.size() ? m_key.size() : 0);  // a new one
        m_key.append(part.substr(0, kLongestName + 1 - m_key.size()));
        return requireText(part);
    }
    bool on_key(std::string_view name, std::size_t length, error_code& error) {
        if (name.size() < length) {
            on_key_part(name, length, error);
            name = m_key;
        }
        if (m_skipped > 0) {
            return requireText(name);
        }
        Frame& object = *m_open;
        for (std::size_t index = 0; index < object.fields.size(); ++index) {
            if (object.fields[index].name == name) {
                const unsigned bit = 1U << index;
                m_expected = &object.fields[index];
                object.seen ^= bit;
                if ((object.seen & bit) == 0) {
                    fail("the field ", name, " comes twice");
                }
                return true;
            }
        }
        m_expected = nullptr;  // a field that this client does not know
        return requireText(name);
    }

    bool on_string_part(std::string_view part, std::size_t, error_code&) {
        if (expected<char * Values::*>() != nullptr) {
            m_answer.texts.append(part);
        }
        return requireText(part);
    }
    bool on_string(std::string_view last, std::size_t length, error_code& error) {
        on_string_part(last, length, error);
        if (m_expected != nullptr) {
            const auto member = std::get<char * Values::*>(m_expected->kind);
            m_values.*member = m_answer.texts.finish();
            if (member == &Values::replicaSet) {
                m_answer.replicaSetNames.append(m_values.replicaSet);
            }
        }
        return true;
    }

    bool on_number_part(std::string_view, error_code&) { return true; }
    bool on_int64(std::int64_t number, std::string_view, error_code&) {
        if (const auto* wanted = expected<std::int32_t Values::*>()) {
            m_values.** wanted = static_cast<std::int32_t>(number);
            return number == static_cast<std::int32_t>(number) || other("a number of more than 32 bits");
        }
        return true;
    }
    bool on_uint64(std::uint64_t, std::string_view, error_code&) { return other("a number of more than 32 bits"); }
    bool on_double(double, std::string_view, error_code&) { return other("no integer of 32 bits"); }
    bool on_bool(bool value, error_code&) { return other(value ? "true" : "false"); }
    bool on_null(error_code&) { return other("null"); }

  private:
    /// An object or a list that is open.
    struct Frame {
        const Field* item = &kAnswer;  // what the list consists of; null: it is an object
        // Of the object:
        Scope scope = kResult;
        unsigned seen = 0;  // a bit for each field
        std::span<const Field> fields{};
    };

    /// Refuses the answer for a reason in up to three parts.
    [[noreturn, gnu::cold]] static void fail(std::string_view what, std::string_view more = {},
                                             std::string_view most = {}) {
        throw notUnderstood(std::string(what).append(more).append(most));
    }
    static void require(bool holds, const char* otherwise) {
        if (!holds) {
            fail(otherwise);
        }
    }
    static bool requireText(std::string_view text) {
        require(std::memchr(text.data(), '\0', text.size()) == nullptr, "a string holds a NUL");
        return true;
    }
    /// Where the value at hand goes, or null if it is passed over. Throws Failure when it has to be of another kind.
    template <class Kind>
    const Kind* expected() const {
        const Kind* kind = m_expected == nullptr ? nullptr : std::get_if<Kind>(&m_expected->kind);
        if (kind == nullptr && m_expected != nullptr) {
            fail(m_expected->name, " is of the wrong type");
        }
        return kind;
    }
    /// Passes over a value of a kind that no known field has.
    bool other(const char* what) const {
        if (m_expected != nullptr) {
            fail(m_expected->name, " is ", what);
        }
        return true;
    }

    /// Refuses a list of sessions, when it begins, whose count is too large. A count that comes later is not known yet.
    void limitCount() const {
        const auto count = static_cast<std::size_t>(std::max(m_values.count, 0));
        if (count > m_mostKept / AnswerReader::kSessionBytes) {
            throw listingTooLong("the listing has " + std::to_string(count) + " sessions", m_mostKept);
        }
    }

    void open(const Frame& frame) {
        assert(m_open + 1 < std::end(m_frames));
        *++m_open = frame;
    }
    bool leave() {
        if (m_skipped > 0) {
            --m_skipped;
        } else {
            assert(m_open > m_frames);
            m_expected = (--m_open)->item;  // of an object, the next name tells what is expected
        }
        return true;
    }

    static void requireFields(const Frame& object) {
        for (std::size_t index = 0; index < object.fields.size(); ++index) {
            const auto& [name, kind, isOptional] = object.fields[index];
            if ((object.seen & 1U << index) == 0 && !isOptional) {
                fail("the field ", name, " is missing");
            }
        }
    }

    /// Takes the values of an object that is complete for what the object stands for.
    void take(Scope scope) {
        switch (scope) {
            case kEnvelope:
                takeEnvelope();
                break;
            case kError:
                m_answer.errorMessage = m_values.errorMessage;
                break;
            case kErrorData:
                m_answer.errorName = m_values.name;
                break;
            case kRealm: {
                // Where the names lie is known at the end; they follow each other in the order of the realms.
                const std::size_t names = std::exchange(m_names, m_answer.replicaSetNames.size());
                m_answer.realms.append({m_values.name, static_cast<std::int32_t>(m_names - names), nullptr});
                break;
            }
            case kKey:
                m_answer.key = {m_values.label, m_values.time, m_values.previousTime};
                break;
            case kMember:
                m_answer.members.append({m_values.name, m_values.time});
                break;
            case kSession:
                m_answer.sessions.append({m_values.user, m_values.sessionId, m_values.time});
                break;
            case kClusterResult:
                takeCount(m_answer.realms.size());
                break;
            case kReplicaSetResult:
                takeCount(m_answer.members.size());
                break;
            case kSessionsResult:
                m_answer.total = m_values.total;
                takeCount(m_answer.sessions.size());
                require(m_answer.total >= m_answer.count, "the field total is wrong");
                break;
            case kCountResult:
                takeCount(static_cast<std::size_t>(m_values.count));
                break;
            case kLevelResult:
                m_answer.level = m_values.level;
                break;
            case kKeyResult:
            case kResult:
                break;
        }
    }

    void takeEnvelope() {
        require(std::strcmp(m_values.version, field::kVersion) == 0, "it is not JSON-RPC 2.0");
        require(m_values.id == m_requestId, "it answers another request");
        require(m_hasResult != (m_answer.errorName != nullptr), "it must hold either a result or an error");
        m_answer.clusterId = m_values.clusterId;
        require(m_values.clusterId == nullptr || std::strlen(m_values.clusterId) <= kMaxClusterIdBytes,
                "the field clusterId is too long");
    }

    void takeCount(std::size_t records) {
        m_answer.count = m_values.count;
        require(m_values.count >= 0 && static_cast<std::size_t>(m_values.count) == records, "the field count is wrong");
    }

    const Scope m_result;
    const std::int32_t m_requestId;
    const std::size_t m_mostKept;
    Answer& m_answer;
    bool m_hasResult = false;
    const Field* m_expected = &kAnswer;  // where the parse stands; null: anything, to be passed over
    Frame m_frames[8]{};                 // more than an answer has; the outermost is a list of one answer
    Frame* m_open = m_frames;            // the innermost one
    std::size_t m_skipped = 0;           // levels of a value that is passed over
    std::size_t m_names = 0;             // of replica sets, in the realms that are complete
    std::string m_key;                   // the parts of a field's name that have come, up to the longest known name
    Values m_values{};
};

}  // namespace

struct AnswerReader::Parser : boost::json::basic_parser<AnswerHandler> {
    using basic_parser::basic_parser;
};

std::size_t mostKeptBytes() {
    const auto pages = static_cast<std::uint64_t>(std::max(sysconf(_SC_PHYS_PAGES), 0L));
    const std::uint64_t half = pages * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE)) / 2;
    return half == 0 ? kMostKeptBytes : static_cast<std::size_t>(std::min<std::uint64_t>(half, kMostKeptBytes));
}

AnswerReader::AnswerReader(AnswerShape shape, std::int32_t requestId, std::size_t mostKept)
    : m_shape(shape), m_mostKept(mostKept) {
    boost::json::parse_options options;
    options.max_depth = kMaxDepth;
    m_parser = std::make_unique<Parser>(options, shape, requestId, mostKept, m_answer);
}

AnswerReader::~AnswerReader() = default;

void AnswerReader::read(std::string_view bytes) {
    parse(true, bytes);
    limitLength();
}

std::uint64_t AnswerReader::mostBytes() const {
    return kPassedOver + kPassedOverPerKept * m_mostKept;
}

void AnswerReader::limitLength() const {
    const std::size_t kept = m_answer.keptBytes();
    if (kept > m_mostKept && m_shape == AnswerShape::kSessions) {
        throw listingTooLong("the first " + std::to_string(m_answer.sessions.size()) + " sessions take too much",
                             m_mostKept);
    }
    if (kept > m_mostKept || m_bytes > kPassedOver + kPassedOverPerKept * kept) {
        throw notUnderstood(kTooLong);
    }
}

void AnswerReader::finish() {
    if (m_head.empty()) {
        throw notUnderstood("it is empty");
    }
    parse(false, "");
    char** names = m_answer.replicaSetNames.data();
    for (olm_dsess_admin_realm_t& realm : m_answer.realms) {
        realm.replica_set_names = realm.replica_set_count == 0 ? nullptr : names;
        names += realm.replica_set_count;
    }
}

void AnswerReader::parse(bool more, std::string_view bytes) {
    m_head += bytes.substr(0, kHeadBytes - m_head.size());
    error_code error;
    const std::size_t parsed = m_parser->write_some(more, bytes.data(), bytes.size(), error);
    m_bytes += parsed;
    if (error || parsed < bytes.size()) {
        throw notUnderstood(error == boost::json::error::too_deep
                                ? "it is nested too deeply"
                                : "it is not one whole JSON value (at byte " + std::to_string(m_bytes) + ")");
    }
}

}  // namespace olmdsess
