#include "server/service/Service.h"

#include <openssl/evp.h>

#include <boost/json/serialize.hpp>
#include <chrono>
#include <cstdio>
#include <new>
#include <optional>
#include <span>
#include <utility>

#include "protocol/protocol.h"
#include "runtime/qel_base64.h"
#include "server/log/Text.h"
#include "server/service/Json.h"

namespace dsessd {

namespace {

namespace json = boost::json;
namespace code = protocol::code;
namespace error = protocol::error;
namespace field = protocol::field;
namespace method = protocol::method;

// Large enough that a chunk's own cost does not count, small enough to have one for each connection.
constexpr std::size_t kPieceBytes = 65'536;
/// Most rows are shorter.
constexpr std::size_t kRowBytes = 1'024;

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

Refusal otherCluster() {
    return {code::kServiceError, error::kOtherCluster, "The change is meant for another cluster."};
}

/// What stands in the params and their security. A text that has not come, or was null, is a null pointer.
struct Parameters {
    std::string_view user;
    std::string_view password;
    std::string_view loginId;
    std::string_view changeId;
    std::string_view clusterId;
    std::string_view replicaSet;
    std::string_view realm;
    std::string_view selector;
    std::string_view value;
    std::int32_t max = -1;
    std::int32_t level = 0;
};

/// A field, and where its value goes.
struct FieldRule {
    enum Kind { kText, kTextOrNothing, kInteger };
    const char* name;
    Kind kind;
    std::string_view Parameters::*text = nullptr;
    std::int32_t Parameters::*number = nullptr;
};

// The fields of security; of params, in what changes something; and of params, by method.
constexpr FieldRule kSecurity[] = {{field::kUser, FieldRule::kTextOrNothing, &Parameters::user},
                                   {field::kPassword, FieldRule::kTextOrNothing, &Parameters::password},
                                   {field::kLoginId, FieldRule::kTextOrNothing, &Parameters::loginId}};
constexpr FieldRule kChange[] = {{field::kChangeId, FieldRule::kTextOrNothing, &Parameters::changeId},
                                 {field::kClusterId, FieldRule::kTextOrNothing, &Parameters::clusterId}};
constexpr FieldRule kReplicaSet[] = {{field::kReplicaSet, FieldRule::kText, &Parameters::replicaSet}};
constexpr FieldRule kListing[] = {{field::kRealm, FieldRule::kText, &Parameters::realm},
                                  {field::kSelector, FieldRule::kText, &Parameters::selector},
                                  {field::kValue, FieldRule::kText, &Parameters::value},
                                  {field::kMax, FieldRule::kInteger, nullptr, &Parameters::max}};
constexpr std::span<const FieldRule> kSessions(kListing, 3);
constexpr FieldRule kLevel[] = {{field::kLevel, FieldRule::kInteger, nullptr, &Parameters::level}};

void take(const json::object& object, std::span<const FieldRule> rules, Parameters& parameters) {
    for (const FieldRule& rule : rules) {
        const json::value* value = object.if_contains(rule.name);
        if (rule.kind == FieldRule::kInteger) {
            const std::int64_t* number = value == nullptr ? nullptr : value->if_int64();
            if (number == nullptr || *number != static_cast<std::int32_t>(*number)) {
                refuseForm(code::kInvalidParams, "A parameter is missing or is not an integer of 32 bits.");
            }
            parameters.*rule.number = static_cast<std::int32_t>(*number);
        } else if (const json::string* text = value == nullptr ? nullptr : value->if_string()) {
            parameters.*rule.text = *text;
        } else if (rule.kind == FieldRule::kText || (value != nullptr && !value->is_null())) {
            refuseForm(code::kInvalidParams, "A parameter is missing or is not text.");
        }
    }
}

const json::object& objectIn(const json::object& object, const char* name) {
    const json::value* value = object.if_contains(name);
    const json::object* found = value == nullptr ? nullptr : value->if_object();
    if (found == nullptr) {
        refuseForm(code::kInvalidParams, "The params or their security are missing or are not an object.");
    }
    return *found;
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

json::object keyObject(const Key& key) {
    return {{field::kLabel, key.label}, {field::kTime, key.time}, {field::kPreviousTime, key.previousTime}};
}

/// What an answer says: its result or error.
std::string saying(const char* outcome, const json::object& object) {
    return std::string("\"").append(outcome).append("\":").append(json::serialize(object));
}

std::string saying(const Refusal& refusal) {
    const json::object data{{field::kName, refusal.name}};
    return saying(
        field::kError,
        {{field::kErrorCode, refusal.code}, {field::kErrorMessage, refusal.message}, {field::kErrorData, data}});
}

/// Whether a refusal of a change is kept under the change's identifier: it depends on what the store holds.
bool isKept(const Refusal& refusal) {
    const std::string_view name = refusal.name;
    return name == error::kUnknownRealm || name == error::kNoMatchingSession;
}

/// An answer up to what it says. `id` is JSON.
std::string opening(std::string_view id, std::string_view clusterId) {
    std::string text = std::string("{\"").append(field::kJsonRpc).append("\":\"").append(field::kVersion);
    text.append("\",\"").append(field::kId).append("\":").append(id).append(",\"").append(field::kClusterId);
    text += "\":";
    appendQuoted(text, clusterId);
    return text += ',';
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

std::string millisecondsSince(RequestDeadlines::Clock::time_point start) {
    const std::chrono::duration<double, std::milli> elapsed = RequestDeadlines::Clock::now() - start;
    char text[32];
    std::snprintf(text, sizeof text, "%.1f ms", elapsed.count());
    return text;
}

}  // namespace

ListingAnswer::ListingAnswer(StorePool::Lease store, std::unique_ptr<Store::SessionListing> listing, std::string head)
    : m_store(std::move(store)), m_listing(std::move(listing)), m_head(std::move(head)) {
    m_head.append("{\"").append(field::kTotal).append("\":").append(std::to_string(m_listing->total()));
    m_head.append(",\"").append(field::kCount).append("\":").append(std::to_string(m_listing->count()));
    m_head.append(",\"").append(field::kSessions).append("\":[");
}

std::string ListingAnswer::next() {
    std::string piece = std::exchange(m_head, {});
    piece.reserve(kPieceBytes + kRowBytes);
    SessionRow row;
    while (!m_done && piece.size() < kPieceBytes) {
        if (m_listing->next(row)) {
            piece.append(std::exchange(m_isFirst, false) ? "{\"" : ",{\"").append(field::kId).append("\":");
            appendQuoted(piece, row.id);
            piece.append(",\"").append(field::kUser).append("\":");
            appendQuoted(piece, row.user);
            piece.append(",\"").append(field::kTime).append("\":").append(std::to_string(row.time)) += '}';
        } else {
            piece += "]}}";
            m_done = true;
        }
    }
    return piece;
}

struct Service::Call {
    SecretBuffer request;
    Peer peer;
    std::shared_ptr<RequestDeadlines> deadlines;
    const RequestDeadlines::Clock::time_point start = RequestDeadlines::Clock::now();
    /// When the present step was asked for.
    RequestDeadlines::Clock::time_point queued = start;
    JsonMemory memory;
    std::optional<json::value> document;
    /// JSON, comes back as it came.
    std::string id = "null";
    const Method* method = nullptr;
    Parameters parameters;
    Credentials credentials;
    bool identified = false;
    /// Whether a change may have been made.
    bool changing = false;
    /// Nothing: anonymous.
    std::optional<Role> role;
    StorePool::Lease store{nullptr, StorePool::Returner{nullptr}};
    /// For the log, once a change is made: its topic and what it was.
    std::optional<std::pair<Topic, std::string>> changed;
    std::unique_ptr<ListingAnswer> listing;
    /// For the log.
    const char* outcome = "done";
    Answer answer;
    /// Of another cluster that has come to the place of the one that is served; empty: none has.
    std::string otherCluster;

    std::string who() const {
        std::string text = credentials.user.empty() ? "nobody" : harmless(credentials.user);
        text += " from " + peer.address;
        if (!peer.certificate.empty()) {
            text += " with certificate " + harmless(peer.certificate, 1024);
        }
        return text;
    }
};

struct Service::Method {
    const char* name;
    Lane lane;
    std::span<const FieldRule> takes;
    boost::json::object (Service::*run)(Call& call);
    bool changes() const { return lane == Lane::kChange; }
};

const Service::Method Service::kMethods[] = {
    {method::kClusterGet, Lane::kQuick, {}, &Service::getCluster},
    {method::kReplicaSetGet, Lane::kQuick, kReplicaSet, &Service::getReplicaSet},
    {method::kKeyChange, Lane::kChange, {}, &Service::changeKey},
    {method::kSessionList, Lane::kListing, kListing, &Service::listSessions},
    {method::kSessionTerminate, Lane::kChange, kSessions, &Service::terminateSessions},
    {method::kSessionRefresh, Lane::kChange, kSessions, &Service::refreshSessions},
    {method::kTraceGet, Lane::kQuick, {}, &Service::getTrace},
    {method::kTraceSet, Lane::kChange, kLevel, &Service::setTrace},
};

Service::Service(StorePool& stores, Authenticator& authenticator, Log& log, Anonymous anonymous)
    : m_stores(stores),
      m_authenticator(authenticator),
      m_log(log),
      m_anonymous(anonymous),
      m_clusterId(stores.take()->clusterId()) {}

std::shared_ptr<Service::Call> Service::receive(SecretBuffer request, Peer peer,
                                                std::shared_ptr<RequestDeadlines> deadlines) {
    auto call = std::make_shared<Call>();
    call->request = std::move(request);
    call->peer = std::move(peer);
    call->deadlines = std::move(deadlines);
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
        const std::string& cluster = call.otherCluster.empty() ? m_clusterId : call.otherCluster;
        call.answer.text = opening(call.id, cluster) + saying(refusal) + '}';
    };
    const auto failed = [&](const char* why, int httpStatus = 200, const char* what = "the store failed: ") {
        const std::string text = std::string(what) + why;
        if (const Repeats::Reaction reaction = m_failures.count(text); reaction.say) {
            m_log.write(Topic::kFailure, text + reaction.rest());
        }
        refused({code::kInternalError, error::kServerFailure, "The server failed; its log says why.", httpStatus});
    };
    const auto goOnIn = [&](Lane next) {
        call.queued = RequestDeadlines::Clock::now();
        call.store.reset();
        return next;
    };
    try {
        if (RequestDeadlines::Clock::now() - call.queued > ruleOf(lane).longestWait) {
            throw busy();
        }
        const Lane next = proceed(call, lane);
        if (next != Lane::kDone) {
            return goOnIn(next);
        }
    } catch (const Refusal& refusal) {
        refused(refusal);
    } catch (const Failure& failure) {
        const Reason reason = failure.reason();
        if (lane == Lane::kAtOnce && (reason == Reason::kBusy || reason == Reason::kInterrupted)) {
            return goOnIn(Lane::kQuick);
        }
        switch (reason) {
            case Reason::kBusy:
                refused(busy());
                break;
            case Reason::kInterrupted:
                refused({code::kInternalError, error::kServerFailure, "This takes too long; ask for less."});
                break;
            case Reason::kUncertain:
                failed(failure.what(), 500);
                break;
            case Reason::kReplaced:
                failed(failure.what(), 503);
                call.answer.lacksStore = true;
                if (!call.parameters.clusterId.empty() && call.method->changes()) {
                    call.answer.lacksStore = false;
                    call.otherCluster = failure.clusterId();
                    refused(otherCluster());
                }
                break;
            case Reason::kUnavailable:
                failed(failure.what(), 503);
                call.answer.lacksStore = true;
                break;
            case Reason::kFailed:
            case Reason::kOtherChange:
                failed(failure.what());
        }
    } catch (const std::exception& failure) {
        if (call.changing) {
            throw;
        }
        failed(failure.what(), 503, "a request cannot be answered now: ");  // another node may have more memory
    }
    call.store.reset();
    logRequest(call);
    return Lane::kDone;
}

Lane Service::proceed(Call& call, Lane lane) {
    if (call.method == nullptr) {
        read(call);
    }
    const auto end = RequestDeadlines::Clock::now() + ruleOf(lane).longestWork;
    call.store = m_stores.take([deadlines = call.deadlines, end, changes = lane == Lane::kChange] {
        const auto now = RequestDeadlines::Clock::now();
        return now > end || now > deadlines->stop() || (!changes && now > deadlines->leave());
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
    call.document = parseStrictly({call.request.data(), call.request.size()}, call.memory);
    call.request = {};
    if (!call.document) {
        refuseForm(code::kParseError, "The request is not acceptable JSON.", 400);
    }
    const json::object* whole = call.document->if_object();
    const json::value nothing;
    const auto find = [&](const char* name) -> const json::value& {
        const json::value* value = whole == nullptr ? nullptr : whole->if_contains(name);
        return value == nullptr ? nothing : *value;
    };
    const json::string* version = find(field::kJsonRpc).if_string();
    const json::value& id = find(field::kId);
    const json::string* name = find(field::kMethod).if_string();
    if (version == nullptr || *version != field::kVersion || !(id.is_int64() || id.is_uint64()) || name == nullptr) {
        refuseForm(code::kInvalidRequest, "This is not one JSON-RPC 2.0 request with an integer as its id.", 400);
    }
    call.id = json::serialize(id);
    for (const Method& candidate : kMethods) {
        if (*name == candidate.name) {
            call.method = &candidate;
        }
    }
    if (call.method == nullptr) {
        refuseForm(code::kMethodNotFound, "There is no such method.");
    }
    Parameters& parameters = call.parameters;
    const json::object& params = objectIn(*whole, field::kParams);
    take(objectIn(params, field::kSecurity), kSecurity, parameters);
    take(params, call.method->takes, parameters);
    if (call.method->changes()) {
        take(params, kChange, parameters);
        if (parameters.changeId.size() > kMaxChangeIdBytes) {
            refuse(error::kInvalidValue, "The changeId is too long.");
        }
    }
    call.credentials = {parameters.user, parameters.password.data(), parameters.loginId};
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
    return saying(field::kResult, (this->*call.method->run)(call));
}

std::string Service::change(Call& call) {
    if (!call.parameters.clusterId.empty() && call.parameters.clusterId != m_clusterId) {
        throw otherCluster();
    }
    const std::string digest = digestOf(call.method->name, call.parameters);
    std::string said;
    call.outcome = "done before";
    call.changing = true;
    try {
        said = call.store->once({call.parameters.changeId, call.credentials.user, digest}, [&] {
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
    } catch (const Failure& failure) {
        if (failure.reason() != Reason::kOtherChange) {
            throw;
        }
        refuse(error::kOtherChange, "The changeId names another change.");
    }
    if (call.changed) {
        if (call.method->run == &Service::setTrace) {
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
    const Repeats::Reaction reaction = m_guesses.count(call.peer.host);
    call.answer.delay = reaction.delay;
    if (reaction.say) {
        m_log.write(Topic::kAudit, "identity refused: " + call.who() + reaction.rest());
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
    if (call.method == nullptr || call.method->takes.empty()) {
        return;
    }
    std::string text = name + " with";
    for (const FieldRule& rule : call.method->takes) {
        const Parameters& given = call.parameters;
        text.append(&rule == call.method->takes.data() ? " " : ", ").append(rule.name).append(" ");
        text += rule.kind == FieldRule::kInteger ? std::to_string(given.*rule.number) : harmless(given.*rule.text);
    }
    m_log.write(Topic::kDetail, text);
}

json::object Service::getCluster(Call& call) {
    const ClusterState state = call.store->cluster();
    const json::storage_ptr memory = call.memory.storage();
    json::array realms(memory);
    for (const Realm& realm : state.realms) {
        json::array sets(realm.replicaSets.begin(), realm.replicaSets.end(), memory);
        realms.push_back(json::object({{field::kName, realm.name}, {field::kReplicaSets, std::move(sets)}}, memory));
    }
    const std::size_t count = realms.size();
    return json::object(
        {{field::kCount, count}, {field::kRealms, std::move(realms)}, {field::kKey, keyObject(state.key)}}, memory);
}

json::object Service::getReplicaSet(Call& call) {
    const auto members = call.store->members(call.parameters.replicaSet);
    if (!members) {
        refuse(error::kUnknownReplicaSet, "There is no replica set of this name.");
    }
    const json::storage_ptr memory = call.memory.storage();
    json::array records(memory);
    for (const Member& member : *members) {
        records.push_back(json::object({{field::kName, member.name}, {field::kTime, member.lastContact}}, memory));
    }
    const std::size_t count = records.size();
    return json::object({{field::kCount, count}, {field::kRecords, std::move(records)}}, memory);
}

json::object Service::changeKey(Call& call) {
    const Key key = call.store->changeKey(presentTime());
    call.changed.emplace(Topic::kAudit, "key is " + key.label);
    return {{field::kKey, keyObject(key)}};
}

json::object Service::listSessions(Call& call) {
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
                                                   opening(call.id, m_clusterId) + "\"" + field::kResult + "\":");
    return {};
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

json::object Service::terminateSessions(Call& call) {
    const Parameters& given = call.parameters;
    const Selector selector = selectorOf(given.selector);
    const int count = changedSessions(call.store->terminateSessions(given.realm, selector, given.value));
    call.changed.emplace(Topic::kAudit, "terminated " + describe(given, count));
    return {{field::kCount, count}};
}

json::object Service::refreshSessions(Call& call) {
    const Parameters& given = call.parameters;
    const Selector selector = selectorOf(given.selector);
    const int count = changedSessions(call.store->refreshSessions(given.realm, selector, given.value, presentTime()));
    call.changed.emplace(Topic::kAudit, "refreshed " + describe(given, count));
    return {{field::kCount, count}};
}

json::object Service::getTrace(Call& call) {
    return {{field::kLevel, call.store->traceLevel()}};
}

json::object Service::setTrace(Call& call) {
    const int level = call.parameters.level;
    if (level < 0 || level > Log::kMaxLevel) {
        refuse(error::kInvalidValue, "A trace level is a number from 0 to 9.");
    }
    call.store->setTraceLevel(level);
    // At every level: it says what else the log will hold.
    call.changed.emplace(Topic::kNotice, "trace level is " + std::to_string(level));
    return {{field::kLevel, level}};
}

}  // namespace dsessd
