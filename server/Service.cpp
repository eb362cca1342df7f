#include "server/Service.h"

#include <chrono>
#include <cstdio>
#include <iterator>
#include <optional>

#include "admin/protocol/protocol.h"
#include "server/Json.h"
#include "server/Text.h"

namespace dsessd {

namespace {

namespace code = protocol::code;
namespace error = protocol::error;
namespace field = protocol::field;
namespace method = protocol::method;
using rapidjson::Value;
using Writer = rapidjson::Writer<rapidjson::StringBuffer>;

constexpr std::size_t kPieceBytes = 65'536;

constexpr std::chrono::seconds kWaitForChange{10};

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

[[noreturn]] void refuseForNow(const char* message) {
    throw Refusal{code::kInternalError, error::kServerFailure, message, 503};
}

std::string_view viewOf(const Value& value) {
    return {value.GetString(), value.GetStringLength()};
}

const Value* find(const Value& object, const char* name) {
    const auto found = object.FindMember(name);
    return found == object.MemberEnd() ? nullptr : &found->value;
}

std::string_view textParameter(const Value& parameters, const char* name) {
    const Value* value = find(parameters, name);
    if (value == nullptr || !value->IsString())
        refuseForm(code::kInvalidParams, "A parameter is missing or is not text.");
    return viewOf(*value);
}

std::int32_t integerParameter(const Value& parameters, const char* name) {
    const Value* value = find(parameters, name);
    if (value == nullptr || !value->IsInt())
        refuseForm(code::kInvalidParams, "A parameter is missing or is not an integer of 32 bits.");
    return value->GetInt();
}

/// Null when it is null or missing.
const Value* optionalText(const Value& object, const char* name) {
    const Value* value = find(object, name);
    if (value == nullptr || value->IsNull())
        return nullptr;
    if (!value->IsString())
        refuseForm(code::kInvalidParams, "A field of security is neither text nor null.");
    return value;
}

Credentials credentialsOf(const Value& parameters) {
    const Value* security = find(parameters, field::kSecurity);
    if (security == nullptr || !security->IsObject())
        refuseForm(code::kInvalidParams, "The parameter security is missing or is not an object.");
    Credentials credentials;
    if (const Value* user = optionalText(*security, field::kUser))
        credentials.user = viewOf(*user);
    if (const Value* password = optionalText(*security, field::kPassword))
        credentials.password = password->GetString();
    if (const Value* loginId = optionalText(*security, field::kLoginId))
        credentials.loginId = viewOf(*loginId);
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
enum class Takes { nothing, replicaSet, sessions, sessionsAndMax, level };

Parameters parametersOf(const Value& object, Takes takes) {
    Parameters parameters;
    if (takes == Takes::replicaSet)
        parameters.replicaSet = textParameter(object, field::kReplicaSet);
    if (takes == Takes::sessions || takes == Takes::sessionsAndMax) {
        parameters.realm = textParameter(object, field::kRealm);
        parameters.selector = textParameter(object, field::kSelector);
        parameters.value = textParameter(object, field::kValue);
    }
    if (takes == Takes::sessionsAndMax)
        parameters.max = integerParameter(object, field::kMax);
    if (takes == Takes::level)
        parameters.level = integerParameter(object, field::kLevel);
    return parameters;
}

Selector selectorOf(std::string_view name) {
    if (name == protocol::selector::kUser)
        return Selector::user;
    if (name == protocol::selector::kSession)
        return Selector::session;
    refuse(error::kInvalidValue, "The selector is neither user nor session.");
}

void putText(Writer& writer, const char* name, std::string_view text) {
    writer.Key(name);
    writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

void putInteger(Writer& writer, const char* name, std::int64_t value) {
    writer.Key(name);
    writer.Int64(value);
}

void putKey(Writer& writer, const Key& key) {
    writer.Key(field::kKey);
    writer.StartObject();
    putText(writer, field::kLabel, key.label);
    putInteger(writer, field::kTime, key.time);
    putInteger(writer, field::kPreviousTime, key.previousTime);
    writer.EndObject();
}

/// Opens an answer up to its result or error. `id` is JSON.
void beginAnswer(Writer& writer, std::string_view id, const char* outcome) {
    writer.StartObject();
    writer.Key(field::kJsonRpc);
    writer.String(field::kVersion);
    writer.Key(field::kId);
    writer.RawValue(id.data(), id.size(), rapidjson::kNumberType);
    writer.Key(outcome);
    writer.StartObject();
}

std::string errorText(std::string_view id, const Refusal& refusal) {
    rapidjson::StringBuffer buffer;
    Writer writer(buffer);
    beginAnswer(writer, id, field::kError);
    putInteger(writer, field::kErrorCode, refusal.code);
    putText(writer, field::kErrorMessage, refusal.message);
    writer.Key(field::kErrorData);
    writer.StartObject();
    putText(writer, field::kName, refusal.name);
    writer.EndObject();
    writer.EndObject();
    writer.EndObject();
    return {buffer.GetString(), buffer.GetSize()};
}

std::string sessionCount(int count) {
    return std::to_string(count) + (count == 1 ? " session" : " sessions");
}

std::string millisecondsSince(std::chrono::steady_clock::time_point start) {
    const std::chrono::duration<double, std::milli> elapsed = std::chrono::steady_clock::now() - start;
    char text[32];
    std::snprintf(text, sizeof text, "%.1f ms", elapsed.count());
    return text;
}

}  // namespace

ListingAnswer::ListingAnswer(StorePool::Lease store, std::unique_ptr<Store::SessionListing> listing,
                             std::string_view id)
    : store_(std::move(store)), listing_(std::move(listing)), writer_(buffer_) {
    beginAnswer(writer_, id, field::kResult);
    putInteger(writer_, field::kTotal, listing_->total());
    putInteger(writer_, field::kCount, listing_->count());
    writer_.Key(field::kSessions);
    writer_.StartArray();
}

std::string ListingAnswer::next() {
    SessionRow row;
    while (!done_ && buffer_.GetSize() < kPieceBytes) {
        if (listing_->next(row)) {
            writer_.StartObject();
            putText(writer_, field::kId, row.id);
            putText(writer_, field::kUser, row.user);
            putInteger(writer_, field::kTime, row.time);
            writer_.EndObject();
        } else {
            writer_.EndArray();
            writer_.EndObject();
            writer_.EndObject();
            done_ = true;
        }
    }
    std::string piece(buffer_.GetString(), buffer_.GetSize());
    buffer_.Clear();
    return piece;
}

/// One request on its way through.
struct Service::Call {
    const Peer& peer;
    rapidjson::Document document;
    /// JSON, comes back as it came.
    std::string id = "null";
    const Method* method = nullptr;
    Credentials credentials;
    Parameters parameters;
    /// Nothing: anonymous.
    std::optional<Role> role;
    StorePool::Lease store;
    rapidjson::StringBuffer buffer;
    Writer result;
    std::unique_ptr<ListingAnswer> listing;

    explicit Call(const Peer& from) : peer(from), store(nullptr, StorePool::Returner{nullptr}), result(buffer) {}

    std::string who() const {
        std::string text = credentials.user.empty() ? "nobody" : harmless(credentials.user);
        text += " from " + peer.address;
        if (!peer.certificate.empty())
            text += " with certificate " + harmless(peer.certificate);
        return text;
    }
};

struct Service::Method {
    const char* name;
    bool changes;
    Takes takes;
    void (Service::*run)(Call& call);
};

const Service::Method Service::kMethods[] = {
    {method::kClusterGet, false, Takes::nothing, &Service::getCluster},
    {method::kReplicaSetGet, false, Takes::replicaSet, &Service::getReplicaSet},
    {method::kKeyChange, true, Takes::nothing, &Service::changeKey},
    {method::kSessionList, false, Takes::sessionsAndMax, &Service::listSessions},
    {method::kSessionTerminate, true, Takes::sessions, &Service::terminateSessions},
    {method::kSessionRefresh, true, Takes::sessions, &Service::refreshSessions},
    {method::kTraceGet, false, Takes::nothing, &Service::getTrace},
    {method::kTraceSet, true, Takes::level, &Service::setTrace},
};

Service::Service(StorePool& stores, Authenticator& authenticator, Log& log, Anonymous anonymous)
    : stores_(stores), authenticator_(authenticator), log_(log), anonymous_(anonymous) {}

Answer Service::handle(SecretString& request, const Peer& peer) {
    const auto start = std::chrono::steady_clock::now();
    Call call(peer);
    Answer result;
    const char* outcome = "done";
    const auto refused = [&](const Refusal& refusal) {
        outcome = refusal.name;
        result = {refusal.httpStatus, errorText(call.id, refusal), nullptr};
    };
    const auto failed = [&](const char* why) {
        log_.write(Topic::failure, std::string("the data file failed: ") + why);
        refused({code::kInternalError, error::kServerFailure, "The server failed; its log says why."});
    };
    try {
        result = answer(request, call);
    } catch (const Refusal& refusal) {
        refused(refusal);
    } catch (const SqliteError& failure) {
        failed(failure.what());
    } catch (const StoreError& failure) {
        failed(failure.what());
    }
    logRequest(call, result.httpStatus == 503 ? "busy" : outcome, millisecondsSince(start));
    return result;
}

Answer Service::answer(SecretString& request, Call& call) {
    rapidjson::Document& document = call.document;
    if (!parseStrictly(request.data(), document))
        refuseForm(code::kParseError, "The request is not acceptable JSON.", 400);
    const Value* version = document.IsObject() ? find(document, field::kJsonRpc) : nullptr;
    const Value* id = version != nullptr ? find(document, field::kId) : nullptr;
    const Value* name = version != nullptr ? find(document, field::kMethod) : nullptr;
    if (id == nullptr || name == nullptr || !version->IsString() || viewOf(*version) != field::kVersion ||
        !(id->IsInt64() || id->IsUint64()) || !name->IsString())
        refuseForm(code::kInvalidRequest, "This is not one JSON-RPC 2.0 request with an integer as its id.", 400);
    call.id = id->IsInt64() ? std::to_string(id->GetInt64()) : std::to_string(id->GetUint64());

    for (const Method& candidate : kMethods)
        if (viewOf(*name) == candidate.name)
            call.method = &candidate;
    if (call.method == nullptr)
        refuseForm(code::kMethodNotFound, "There is no such method.");
    const Value* parameters = find(document, field::kParams);
    if (parameters == nullptr || !parameters->IsObject())
        refuseForm(code::kInvalidParams, "The params are missing or are not an object.");
    call.credentials = credentialsOf(*parameters);
    call.parameters = parametersOf(*parameters, call.method->takes);

    call.store = stores_.take();
    identify(call);
    permit(call);

    beginAnswer(call.result, call.id, field::kResult);
    if (call.method->changes) {
        const std::unique_lock lock(changing_, kWaitForChange);
        if (!lock)
            refuseForNow("Other changes take too long; try again.");
        (this->*call.method->run)(call);
    } else {
        (this->*call.method->run)(call);
    }
    if (call.listing != nullptr) {
        std::string first = call.listing->next();
        if (call.listing->done())
            call.listing.reset();
        return {200, std::move(first), std::move(call.listing)};
    }
    call.result.EndObject();
    call.result.EndObject();
    return {200, std::string(call.buffer.GetString(), call.buffer.GetSize()), nullptr};
}

void Service::identify(Call& call) {
    const bool noPassword = call.credentials.password == nullptr || call.credentials.password[0] == '\0';
    if (call.credentials.user == kAnonymousUser && noPassword)
        return;
    const Authenticator::Verdict verdict = authenticator_.verify(*call.store, call.credentials);
    switch (verdict.outcome) {
        case Authenticator::Outcome::verified:
            log_.write(Topic::audit, "login of " + call.who());
            break;
        case Authenticator::Outcome::remembered:
            break;
        case Authenticator::Outcome::refused:
            log_.write(Topic::audit, "identity refused: " + call.who());
            refuse(error::kIdentityRefused, "The user is unknown or the password is wrong.");
        case Authenticator::Outcome::busy:
            refuseForNow("Too many logins at a time; try again.");
    }
    call.role = verdict.role;
}

void Service::permit(const Call& call) const {
    if (!call.role && (anonymous_ == Anonymous::none || call.method->changes))
        refuse(error::kNotPermitted, "This needs a login.");
    if (call.role == Role::read && call.method->changes)
        refuse(error::kNotPermitted, "This administrator may not change anything.");
}

void Service::logRequest(const Call& call, std::string_view outcome, std::string_view duration) {
    if (!log_.wants(Topic::request))
        return;
    const std::string name = call.method == nullptr ? "a message" : call.method->name;
    log_.write(Topic::request, name + " by " + call.who() + ": " + std::string(outcome) + ", " + std::string(duration));
    if (call.method == nullptr || call.method->takes == Takes::nothing)
        return;
    const Parameters& given = call.parameters;
    std::string text = name + " with";
    if (call.method->takes == Takes::replicaSet)
        text += " replica set " + harmless(given.replicaSet);
    else if (call.method->takes == Takes::level)
        text += " level " + std::to_string(given.level);
    else
        text += " realm " + harmless(given.realm) + ", " + harmless(given.selector) + " " + harmless(given.value);
    if (call.method->takes == Takes::sessionsAndMax)
        text += ", max " + std::to_string(given.max);
    log_.write(Topic::detail, text);
}

void Service::changed(const Call& call, Topic topic, const std::string& what) {
    log_.write(topic, "changed: " + what + ", by " + call.who());
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
        for (const std::string& set : realm.replicaSets)
            call.result.String(set.data(), static_cast<rapidjson::SizeType>(set.size()));
        call.result.EndArray();
        call.result.EndObject();
    }
    call.result.EndArray();
    putKey(call.result, state.key);
}

void Service::getReplicaSet(Call& call) {
    const auto members = call.store->members(call.parameters.replicaSet);
    if (!members)
        refuse(error::kUnknownReplicaSet, "There is no replica set of this name.");
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
    changed(call, Topic::audit, "key is " + key.label);
    putKey(call.result, key);
}

void Service::listSessions(Call& call) {
    const Parameters& given = call.parameters;
    const Selector selector = selectorOf(given.selector);
    if (given.max < -1 || given.value.size() > kMaxPatternBytes)
        refuse(error::kInvalidValue, "The most records wanted is below -1, or the pattern is too long.");
    auto listing = call.store->listSessions(given.realm, selector, given.value, given.max);
    if (!listing)
        refuse(error::kUnknownRealm, "There is no realm of this name.");
    call.listing = std::make_unique<ListingAnswer>(std::move(call.store), std::move(listing), call.id);
}

namespace {

/// The number of sessions that a change was made to, if it was.
int changedSessions(const std::optional<int>& count) {
    if (!count)
        refuse(error::kUnknownRealm, "There is no realm of this name.");
    if (*count == 0)
        refuse(error::kNoMatchingSession, "No session of this realm matches.");
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
    changed(call, Topic::audit, "terminated " + describe(given, count));
    putInteger(call.result, field::kCount, count);
}

void Service::refreshSessions(Call& call) {
    const Parameters& given = call.parameters;
    const Selector selector = selectorOf(given.selector);
    const int count = changedSessions(call.store->refreshSessions(given.realm, selector, given.value, presentTime()));
    changed(call, Topic::audit, "refreshed " + describe(given, count));
    putInteger(call.result, field::kCount, count);
}

void Service::getTrace(Call& call) {
    putInteger(call.result, field::kLevel, call.store->traceLevel());
}

void Service::setTrace(Call& call) {
    const int level = call.parameters.level;
    if (level < 0 || level > Log::kMaxLevel)
        refuse(error::kInvalidValue, "A trace level is a number from 0 to 9.");
    call.store->setTraceLevel(level);
    log_.setLevel(level);
    // At every level: it says what else the log will hold.
    changed(call, Topic::notice, "trace level is " + std::to_string(level));
    putInteger(call.result, field::kLevel, level);
}

}  // namespace dsessd
