#include "server/Service.h"

#include <openssl/evp.h>

#include <chrono>
#include <cstdio>
#include <iterator>
#include <new>
#include <optional>
#include <utility>

#include "protocol/protocol.h"
#include "runtime/qel_base64.h"
#include "server/Json.h"
#include "server/Text.h"

namespace dsessd {

namespace {

namespace code = protocol::code;
namespace error = protocol::error;
namespace field = protocol::field;
namespace method = protocol::method;

// Large enough that a chunk's own cost does not count, small enough to have one for each connection.
constexpr std::size_t kPieceBytes = 65'536;

/// Why a request is not done; thrown by whatever finds out.
struct Refusal {
    int code;
    const char* name;
    const char* message;
    int httpStatus = 200;
};

[[noreturn]] void refuse(const char* name, const char* message) {
    throw Refusal{code::kServiceError, name, message};
}

[[noreturn]] void refuseForm(int errorCode, const char* message, int httpStatus = 200) {
    throw Refusal{errorCode, error::kInvalidRequest, message, httpStatus};
}

/// Whatever the server is busy with: it may be asked again, and so may another.
Refusal busy() {
    return {code::kInternalError, error::kServerFailure, "The server is busy; try again.", 503};
}

std::string_view viewOf(const JsonValue& value) {
    return {value.GetString(), value.GetStringLength()};
}

const JsonValue* find(const JsonValue& object, const char* name) {
    const auto found = object.FindMember(name);
    return found == object.MemberEnd() ? nullptr : &found->value;
}

std::string_view textParameter(const JsonValue& parameters, const char* name) {
    const JsonValue* value = find(parameters, name);
    if (value == nullptr || !value->IsString()) {
        refuseForm(code::kInvalidParams, "A parameter is missing or is not text.");
    }
    return viewOf(*value);
}

std::int32_t integerParameter(const JsonValue& parameters, const char* name) {
    const JsonValue* value = find(parameters, name);
    if (value == nullptr || !value->IsInt()) {
        refuseForm(code::kInvalidParams, "A parameter is missing or is not an integer of 32 bits.");
    }
    return value->GetInt();
}

/// Null when it is null or missing.
const JsonValue* optionalText(const JsonValue& object, const char* name) {
    const JsonValue* value = find(object, name);
    if (value == nullptr || value->IsNull()) {
        return nullptr;
    }
    if (!value->IsString()) {
        refuseForm(code::kInvalidParams, "A field of security is neither text nor null.");
    }
    return value;
}

Credentials credentialsOf(const JsonValue& parameters) {
    const JsonValue* security = find(parameters, field::kSecurity);
    if (security == nullptr || !security->IsObject()) {
        refuseForm(code::kInvalidParams, "The parameter security is missing or is not an object.");
    }
    Credentials credentials;
    if (const JsonValue* user = optionalText(*security, field::kUser)) {
        credentials.user = viewOf(*user);
    }
    if (const JsonValue* password = optionalText(*security, field::kPassword)) {
        credentials.password = password->GetString();
    }
    if (const JsonValue* loginId = optionalText(*security, field::kLoginId)) {
        credentials.loginId = viewOf(*loginId);
    }
    return credentials;
}

struct Parameters {
    std::string_view replicaSet;
    std::string_view realm;
    std::string_view selector;
    std::string_view value;
    std::int32_t max = -1;
    std::int32_t level = 0;
};

/// Which parameters a method takes beside the identity.
enum class Takes { kNothing, kReplicaSet, kSessions, kSessionsAndMax, kLevel };

Parameters parametersOf(const JsonValue& object, Takes takes) {
    Parameters parameters;
    if (takes == Takes::kReplicaSet) {
        parameters.replicaSet = textParameter(object, field::kReplicaSet);
    }
    if (takes == Takes::kSessions || takes == Takes::kSessionsAndMax) {
        parameters.realm = textParameter(object, field::kRealm);
        parameters.selector = textParameter(object, field::kSelector);
        parameters.value = textParameter(object, field::kValue);
    }
    if (takes == Takes::kSessionsAndMax) {
        parameters.max = integerParameter(object, field::kMax);
    }
    if (takes == Takes::kLevel) {
        parameters.level = integerParameter(object, field::kLevel);
    }
    return parameters;
}

Selector selectorOf(std::string_view name) {
    if (name == protocol::selector::kUser) {
        return Selector::kUser;
    }
    if (name == protocol::selector::kSession) {
        return Selector::kSession;
    }
    refuse(error::kInvalidValue, "The selector is neither user nor session.");
}

void putText(JsonWriter& writer, const char* name, std::string_view text) {
    writer.Key(name);
    writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

void putInteger(JsonWriter& writer, const char* name, std::int64_t value) {
    writer.Key(name);
    writer.Int64(value);
}

void putKey(JsonWriter& writer, const Key& key) {
    writer.Key(field::kKey);
    writer.StartObject();
    putText(writer, field::kLabel, key.label);
    putInteger(writer, field::kTime, key.time);
    putInteger(writer, field::kPreviousTime, key.previousTime);
    writer.EndObject();
}

std::string textOf(const JsonBuffer& buffer) {
    return {buffer.GetString(), buffer.GetSize()};
}

/// What an answer says: its result or error, which is JSON.
std::string saying(const char* outcome, std::string_view object) {
    return std::string("\"").append(outcome).append("\":").append(object);
}

std::string saying(const Refusal& refusal) {
    JsonBuffer buffer;
    JsonWriter writer(buffer);
    writer.StartObject();
    putInteger(writer, field::kErrorCode, refusal.code);
    putText(writer, field::kErrorMessage, refusal.message);
    writer.Key(field::kErrorData);
    writer.StartObject();
    putText(writer, field::kName, refusal.name);
    writer.EndObject();
    writer.EndObject();
    return saying(field::kError, textOf(buffer));
}

/// Whether a refusal of a change is kept under the change's identifier: it depends on what the store holds.
bool isKept(const Refusal& refusal) {
    const std::string_view name = refusal.name;
    return name == error::kUnknownRealm || name == error::kNoMatchingSession;
}

/// An answer up to what it says. `id` is JSON.
std::string opening(std::string_view id, std::string_view clusterId) {
    JsonBuffer buffer;
    JsonWriter writer(buffer);
    writer.StartObject();
    putText(writer, field::kJsonRpc, field::kVersion);
    writer.Key(field::kId);
    writer.RawValue(id.data(), id.size(), rapidjson::kNumberType);
    putText(writer, field::kClusterId, clusterId);
    return textOf(buffer) + ',';
}

/// Stands for all that a change is about.
std::string digestOf(std::string_view method, const Parameters& given) {
    const std::string level = std::to_string(given.level);
    std::string content;
    for (const std::string_view part : {method, given.realm, given.selector, given.value, std::string_view(level)}) {
        content.append(std::to_string(part.size())).append(" ").append(part);
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned length = 0;
    char text[2 * EVP_MAX_MD_SIZE];
    if (EVP_Digest(content.data(), content.size(), digest, &length, EVP_sha256(), nullptr) != 1 ||
        qel_base64_std_encode(digest, length, text, sizeof text) < 0) {
        throw std::bad_alloc();
    }
    return text;
}

std::string sessionCount(int count) {
    return std::to_string(count) + (count == 1 ? " session" : " sessions");
}

std::string millisecondsSince(Patience::Clock::time_point start) {
    const std::chrono::duration<double, std::milli> elapsed = Patience::Clock::now() - start;
    char text[32];
    std::snprintf(text, sizeof text, "%.1f ms", elapsed.count());
    return text;
}

}  // namespace

ListingAnswer::ListingAnswer(StorePool::Lease store, std::unique_ptr<Store::SessionListing> listing, std::string head)
    : m_store(std::move(store)), m_listing(std::move(listing)), m_head(std::move(head)), m_writer(m_buffer) {
    m_writer.StartObject();
    putInteger(m_writer, field::kTotal, m_listing->total());
    putInteger(m_writer, field::kCount, m_listing->count());
    m_writer.Key(field::kSessions);
    m_writer.StartArray();
}

std::string ListingAnswer::next() {
    SessionRow row;
    std::string_view tail;
    while (!m_done && m_buffer.GetSize() < kPieceBytes) {
        if (m_listing->next(row)) {
            m_writer.StartObject();
            putText(m_writer, field::kId, row.id);
            putText(m_writer, field::kUser, row.user);
            putInteger(m_writer, field::kTime, row.time);
            m_writer.EndObject();
        } else {
            m_writer.EndArray();
            m_writer.EndObject();
            tail = "}";
            m_done = true;
        }
    }
    std::string piece = std::exchange(m_head, {});
    piece.append(m_buffer.GetString(), m_buffer.GetSize()).append(tail);
    m_buffer.Clear();
    return piece;
}

struct Service::Call {
    SecretBuffer request;
    Peer peer;
    std::shared_ptr<Patience> patience;
    const Patience::Clock::time_point start = Patience::Clock::now();
    /// When the present step was asked for.
    Patience::Clock::time_point queued = start;
    JsonDocument document;
    /// JSON, comes back as it came.
    std::string id = "null";
    const Method* method = nullptr;
    Credentials credentials;
    Parameters parameters;
    /// Empty: none was given.
    std::string_view changeId;
    std::string_view clusterId;
    bool identified = false;
    /// Nothing: anonymous.
    std::optional<Role> role;
    StorePool::Lease store{nullptr, StorePool::Returner{nullptr}};
    JsonBuffer buffer;
    JsonWriter result{buffer};
    /// For the log, once a change is made: its topic and what it was.
    std::optional<std::pair<Topic, std::string>> changed;
    std::unique_ptr<ListingAnswer> listing;
    /// For the log.
    const char* outcome = "done";
    Answer answer;

    std::string who() const {
        std::string text = credentials.user.empty() ? "nobody" : harmless(credentials.user);
        text += " from " + peer.address;
        if (!peer.certificate.empty()) {
            text += " with certificate " + harmless(peer.certificate);
        }
        return text;
    }
};

struct Service::Method {
    const char* name;
    Lane lane;
    Takes takes;
    void (Service::*run)(Call& call);
    bool changes() const { return lane == Lane::kChange; }
};

const Service::Method Service::kMethods[] = {
    {method::kClusterGet, Lane::kQuick, Takes::kNothing, &Service::getCluster},
    {method::kReplicaSetGet, Lane::kQuick, Takes::kReplicaSet, &Service::getReplicaSet},
    {method::kKeyChange, Lane::kChange, Takes::kNothing, &Service::changeKey},
    {method::kSessionList, Lane::kListing, Takes::kSessionsAndMax, &Service::listSessions},
    {method::kSessionTerminate, Lane::kChange, Takes::kSessions, &Service::terminateSessions},
    {method::kSessionRefresh, Lane::kChange, Takes::kSessions, &Service::refreshSessions},
    {method::kTraceGet, Lane::kQuick, Takes::kNothing, &Service::getTrace},
    {method::kTraceSet, Lane::kChange, Takes::kLevel, &Service::setTrace},
};

Service::Service(StorePool& stores, Authenticator& authenticator, Log& log, Anonymous anonymous)
    : m_stores(stores),
      m_authenticator(authenticator),
      m_log(log),
      m_anonymous(anonymous),
      m_clusterId(stores.take()->clusterId()) {}

std::shared_ptr<Service::Call> Service::receive(SecretBuffer request, Peer peer, std::shared_ptr<Patience> patience) {
    auto call = std::make_shared<Call>();
    call->request = std::move(request);
    call->peer = std::move(peer);
    call->patience = std::move(patience);
    return call;
}

const std::string& Service::peerOf(const Call& call) {
    return call.peer.host;
}

Answer Service::answerOf(Call& call) {
    return std::move(call.answer);
}

Lane Service::advance(Call& call, Lane lane) {
    const auto refused = [&](const Refusal& refusal) {
        call.outcome = refusal.httpStatus == 503 ? "busy" : refusal.name;
        call.answer.httpStatus = refusal.httpStatus;
        call.answer.text = opening(call.id, m_clusterId) + saying(refusal) + '}';
    };
    const auto failed = [&](const char* why, int httpStatus = 200) {
        m_log.write(Topic::kFailure, std::string("the store failed: ") + why);
        refused({code::kInternalError, error::kServerFailure, "The server failed; its log says why.", httpStatus});
    };
    const auto goOnIn = [&](Lane next) {
        call.queued = Patience::Clock::now();
        call.store.reset();
        return next;
    };
    try {
        if (Patience::Clock::now() - call.queued > ruleOf(lane).longestWait) {
            throw busy();
        }
        const Lane next = proceed(call, lane);
        if (next != Lane::kDone) {
            return goOnIn(next);
        }
    } catch (const Refusal& refusal) {
        refused(refusal);
    } catch (const StoreBusy&) {
        if (lane == Lane::kAtOnce) {
            return goOnIn(Lane::kQuick);
        }
        refused(busy());
    } catch (const StoreInterrupted&) {
        if (lane == Lane::kAtOnce) {
            return goOnIn(Lane::kQuick);
        }
        refused({code::kInternalError, error::kServerFailure, "This takes too long; ask for less."});
    } catch (const StoreUncertain& failure) {
        failed(failure.what(), 500);
    } catch (const StoreUnreachable& failure) {
        failed(failure.what(), 503);
    } catch (const StoreError& failure) {
        failed(failure.what());
    }
    call.store.reset();
    logRequest(call);
    return Lane::kDone;
}

Lane Service::proceed(Call& call, Lane lane) {
    if (call.method == nullptr) {
        read(call);
    }
    const auto end = Patience::Clock::now() + ruleOf(lane).longestWork;
    call.store = m_stores.take([patience = call.patience, end, changes = lane == Lane::kChange] {
        const auto now = Patience::Clock::now();
        return now > end || now > patience->stop() || (!changes && now > patience->leave());
    });
    if (!identify(call, lane)) {
        return Lane::kLogin;
    }
    permit(call);
    const Lane own = laneOf(call);
    if (own != lane && !(own == Lane::kQuick && lane == Lane::kAtOnce)) {
        return own;
    }
    run(call);
    return Lane::kDone;
}

void Service::read(Call& call) {
    JsonDocument& document = call.document;
    call.request.push_back('\0');
    if (!parseStrictly(call.request.data(), document)) {
        refuseForm(code::kParseError, "The request is not acceptable JSON.", 400);
    }
    const JsonValue* version = document.IsObject() ? find(document, field::kJsonRpc) : nullptr;
    const JsonValue* id = version != nullptr ? find(document, field::kId) : nullptr;
    const JsonValue* name = version != nullptr ? find(document, field::kMethod) : nullptr;
    if (id == nullptr || name == nullptr || !version->IsString() || viewOf(*version) != field::kVersion ||
        !(id->IsInt64() || id->IsUint64()) || !name->IsString()) {
        refuseForm(code::kInvalidRequest, "This is not one JSON-RPC 2.0 request with an integer as its id.", 400);
    }
    call.id = id->IsInt64() ? std::to_string(id->GetInt64()) : std::to_string(id->GetUint64());

    for (const Method& candidate : kMethods) {
        if (viewOf(*name) == candidate.name) {
            call.method = &candidate;
        }
    }
    if (call.method == nullptr) {
        refuseForm(code::kMethodNotFound, "There is no such method.");
    }
    const JsonValue* parameters = find(document, field::kParams);
    if (parameters == nullptr || !parameters->IsObject()) {
        refuseForm(code::kInvalidParams, "The params are missing or are not an object.");
    }
    call.credentials = credentialsOf(*parameters);
    call.parameters = parametersOf(*parameters, call.method->takes);
    if (call.method->changes()) {
        if (const JsonValue* changeId = optionalText(*parameters, field::kChangeId)) {
            call.changeId = viewOf(*changeId);
        }
        if (const JsonValue* clusterId = optionalText(*parameters, field::kClusterId)) {
            call.clusterId = viewOf(*clusterId);
        }
        if (call.changeId.size() > kMaxChangeIdBytes) {
            refuse(error::kInvalidValue, "The changeId is too long.");
        }
    }
}

void Service::run(Call& call) {
    std::string said;
    if (call.method->changes()) {
        said = change(call);
    } else {
        said = perform(call);
    }
    if (call.listing == nullptr) {
        call.answer.text = opening(call.id, m_clusterId) + said + '}';
        return;
    }
    call.answer.text = call.listing->next();
    if (!call.listing->done()) {
        call.answer.rest = std::move(call.listing);
    }
    call.listing.reset();
}

std::string Service::perform(Call& call) {
    call.buffer.Clear();
    call.result.Reset(call.buffer);
    call.result.StartObject();
    (this->*call.method->run)(call);
    call.result.EndObject();
    return saying(field::kResult, textOf(call.buffer));
}

std::string Service::change(Call& call) {
    if (!call.clusterId.empty() && call.clusterId != m_clusterId) {
        refuse(error::kOtherCluster, "The change is meant for another cluster.");
    }
    const std::string digest = digestOf(call.method->name, call.parameters);
    std::string said;
    call.outcome = "done before";
    try {
        said = call.store->once({call.changeId, call.credentials.user, digest}, [&] {
            call.changed.reset();
            call.outcome = "done";
            try {
                return perform(call);
            } catch (const Refusal& refusal) {
                if (!isKept(refusal)) {
                    throw;
                }
                call.outcome = refusal.name;
                return saying(refusal);
            }
        });
    } catch (const ChangeMismatch&) {
        refuse(error::kOtherChange, "The changeId names another change.");
    }
    if (call.changed) {
        if (call.method->takes == Takes::kLevel) {
            m_log.setLevel(call.parameters.level);
        }
        m_log.write(call.changed->first, "changed: " + call.changed->second + ", by " + call.who());
    }
    return said;
}

/// False: it takes a hash, which is another lane's.
bool Service::identify(Call& call, Lane lane) {
    const bool noPassword = call.credentials.password == nullptr || call.credentials.password[0] == '\0';
    if (call.identified || (call.credentials.user == kAnonymousUser && noPassword)) {
        return true;
    }
    const auto verdict = lane == Lane::kLogin ? m_authenticator.verify(*call.store, call.credentials)
                                              : m_authenticator.recall(*call.store, call.credentials);
    if (!verdict) {
        return false;
    }
    if (verdict->outcome == Authenticator::Outcome::kRefused) {
        refuseIdentity(call);
    }
    if (verdict->outcome == Authenticator::Outcome::kVerified) {
        m_log.write(Topic::kAudit, "login of " + call.who());
    }
    call.role = verdict->role;
    call.identified = true;
    return true;
}

void Service::refuseIdentity(Call& call) {
    const Guesses::Reaction reaction = m_guesses.failed(call.peer.host);
    call.answer.delay = reaction.delay;
    if (reaction.say) {
        const std::string more = reaction.unsaid == 0 ? "" : "; unsaid before: " + std::to_string(reaction.unsaid);
        m_log.write(Topic::kAudit, "identity refused: " + call.who() + more);
    }
    refuse(error::kIdentityRefused, "The user is unknown or the password is wrong.");
}

void Service::permit(const Call& call) const {
    if (!call.role && (m_anonymous == Anonymous::kNone || call.method->changes())) {
        refuse(error::kNotPermitted, "This needs a login.");
    }
    if (call.role == Role::kRead && call.method->changes()) {
        refuse(error::kNotPermitted, "This administrator may not change anything.");
    }
}

Lane Service::laneOf(const Call& call) {
    return call.method->lane == Lane::kListing && !call.role ? Lane::kAnonymousListing : call.method->lane;
}

void Service::logRequest(const Call& call) {
    if (!m_log.wants(Topic::kRequest)) {
        return;
    }
    const std::string name = call.method == nullptr ? "a message" : call.method->name;
    m_log.write(Topic::kRequest,
                name + " by " + call.who() + ": " + call.outcome + ", " + millisecondsSince(call.start));
    if (call.method == nullptr || call.method->takes == Takes::kNothing) {
        return;
    }
    const Parameters& given = call.parameters;
    std::string text = name + " with";
    if (call.method->takes == Takes::kReplicaSet) {
        text += " replica set " + harmless(given.replicaSet);
    } else if (call.method->takes == Takes::kLevel) {
        text += " level " + std::to_string(given.level);
    } else {
        text += " realm " + harmless(given.realm) + ", " + harmless(given.selector) + " " + harmless(given.value);
    }
    if (call.method->takes == Takes::kSessionsAndMax) {
        text += ", max " + std::to_string(given.max);
    }
    m_log.write(Topic::kDetail, text);
}

void Service::getCluster(Call& call) {
    const ClusterState state = call.store->cluster();
    putInteger(call.result, field::kCount, static_cast<std::int64_t>(state.realms.size()));
    call.result.Key(field::kRealms);
    call.result.StartArray();
    for (const Realm& realm : state.realms) {
        call.result.StartObject();
        putText(call.result, field::kName, realm.name);
        call.result.Key(field::kReplicaSets);
        call.result.StartArray();
        for (const std::string& set : realm.replicaSets) {
            call.result.String(set.data(), static_cast<rapidjson::SizeType>(set.size()));
        }
        call.result.EndArray();
        call.result.EndObject();
    }
    call.result.EndArray();
    putKey(call.result, state.key);
}

void Service::getReplicaSet(Call& call) {
    const auto members = call.store->members(call.parameters.replicaSet);
    if (!members) {
        refuse(error::kUnknownReplicaSet, "There is no replica set of this name.");
    }
    putInteger(call.result, field::kCount, static_cast<std::int64_t>(members->size()));
    call.result.Key(field::kRecords);
    call.result.StartArray();
    for (const Member& member : *members) {
        call.result.StartObject();
        putText(call.result, field::kName, member.name);
        putInteger(call.result, field::kTime, member.lastContact);
        call.result.EndObject();
    }
    call.result.EndArray();
}

void Service::changeKey(Call& call) {
    const Key key = call.store->changeKey(presentTime());
    call.changed.emplace(Topic::kAudit, "key is " + key.label);
    putKey(call.result, key);
}

void Service::listSessions(Call& call) {
    const Parameters& given = call.parameters;
    const Selector selector = selectorOf(given.selector);
    if (given.max < -1 || given.value.size() > kMaxPatternBytes) {
        refuse(error::kInvalidValue, "The most records wanted is below -1, or the pattern is too long.");
    }
    auto listing = call.store->listSessions(given.realm, selector, given.value, given.max);
    if (!listing) {
        refuse(error::kUnknownRealm, "There is no realm of this name.");
    }
    call.listing = std::make_unique<ListingAnswer>(std::move(call.store), std::move(listing),
                                                   opening(call.id, m_clusterId) + saying(field::kResult, ""));
}

namespace {

/// The number of sessions that a change was made to, if it was.
int changedSessions(const std::optional<int>& count) {
    if (!count) {
        refuse(error::kUnknownRealm, "There is no realm of this name.");
    }
    if (*count == 0) {
        refuse(error::kNoMatchingSession, "No session of this realm matches.");
    }
    return *count;
}

std::string describe(const Parameters& given, int count) {
    return sessionCount(count) + " of realm " + harmless(given.realm) + ", " + harmless(given.selector) + " " +
           harmless(given.value);
}

}  // namespace

void Service::terminateSessions(Call& call) {
    const Parameters& given = call.parameters;
    const Selector selector = selectorOf(given.selector);
    const int count = changedSessions(call.store->terminateSessions(given.realm, selector, given.value));
    call.changed.emplace(Topic::kAudit, "terminated " + describe(given, count));
    putInteger(call.result, field::kCount, count);
}

void Service::refreshSessions(Call& call) {
    const Parameters& given = call.parameters;
    const Selector selector = selectorOf(given.selector);
    const int count = changedSessions(call.store->refreshSessions(given.realm, selector, given.value, presentTime()));
    call.changed.emplace(Topic::kAudit, "refreshed " + describe(given, count));
    putInteger(call.result, field::kCount, count);
}

void Service::getTrace(Call& call) {
    putInteger(call.result, field::kLevel, call.store->traceLevel());
}

void Service::setTrace(Call& call) {
    const int level = call.parameters.level;
    if (level < 0 || level > Log::kMaxLevel) {
        refuse(error::kInvalidValue, "A trace level is a number from 0 to 9.");
    }
    call.store->setTraceLevel(level);
    // At every level: it says what else the log will hold.
    call.changed.emplace(Topic::kNotice, "trace level is " + std::to_string(level));
    putInteger(call.result, field::kLevel, level);
}

}  // namespace dsessd
