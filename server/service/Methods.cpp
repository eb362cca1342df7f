#include "server/service/Methods.h"

#include <boost/json/array.hpp>

#include <limits>

#include "protocol/protocol.h"
#include "server/log/Failure.h"
#include "server/log/Text.h"

namespace dsessd {

namespace {

namespace json = boost::json;
namespace field = protocol::field;
namespace method = protocol::method;
using Kind = FieldRule::Kind;

/// The longest pattern of a listing, in bytes.
constexpr std::size_t kMaxPatternBytes = 4096;

Selector selectorIn(const Request& request) {
    return request.parameters().selector == protocol::selector::kUser ? Selector::kUser : Selector::kSession;
}

json::object keyObject(const Key& key) {
    return {{field::kLabel, key.label}, {field::kTime, key.time}, {field::kPreviousTime, key.previousTime}};
}

MethodResult getCluster(const Request& request, Store& store) {
    const ClusterState state = store.cluster();
    const json::storage_ptr memory = request.storage();
    json::array realms(memory);
    for (const Realm& realm : state.realms) {
        json::array sets(realm.replicaSets.begin(), realm.replicaSets.end(), memory);
        realms.push_back(json::object({{field::kName, realm.name}, {field::kReplicaSets, std::move(sets)}}, memory));
    }
    const std::size_t count = realms.size();
    return {json::object(
        {{field::kCount, count}, {field::kRealms, std::move(realms)}, {field::kKey, keyObject(state.key)}}, memory)};
}

MethodResult getReplicaSet(const Request& request, Store& store) {
    const auto members = store.members(request.parameters().replicaSet);
    if (!members) {
        throw Failure(Reason::kUnknownReplicaSet, "There is no replica set of this name.");
    }
    const json::storage_ptr memory = request.storage();
    json::array records(memory);
    for (const Member& member : *members) {
        records.push_back(json::object({{field::kName, member.name}, {field::kTime, member.lastContact}}, memory));
    }
    const std::size_t count = records.size();
    return {json::object({{field::kCount, count}, {field::kRecords, std::move(records)}}, memory)};
}

MethodResult changeKey(const Request&, Store& store) {
    const Key key = store.changeKey(presentTime());
    return {.object = {{field::kKey, keyObject(key)}}, .changed = "key is " + key.label};
}

[[noreturn]] void refuseRealm() {
    throw Failure(Reason::kUnknownRealm, "There is no realm of this name.");
}

MethodResult listSessions(const Request& request, Store& store) {
    const Parameters& given = request.parameters();
    auto listing = store.listSessions(given.realm, selectorIn(request), given.value, given.max);
    if (!listing) {
        refuseRealm();
    }
    return {.listing = std::move(listing)};
}

/// `count`: how many sessions were changed; nothing: there is no such realm.
MethodResult changedSessions(const char* verb, const Request& request, std::optional<int> count) {
    if (!count) {
        refuseRealm();
    }
    if (*count == 0) {
        throw Failure(Reason::kNoMatchingSession, "No session of this realm matches.");
    }
    const Parameters& given = request.parameters();
    return {.object = {{field::kCount, *count}},
            .changed = verb + (" " + std::to_string(*count)) + (*count == 1 ? " session" : " sessions") + " of realm " +
                       harmless(given.realm) + ", " + harmless(given.selector) + " " + harmless(given.value)};
}

MethodResult terminateSessions(const Request& request, Store& store) {
    const Parameters& given = request.parameters();
    return changedSessions("terminated", request,
                           store.terminateSessions(given.realm, selectorIn(request), given.value));
}

MethodResult refreshSessions(const Request& request, Store& store) {
    const Parameters& given = request.parameters();
    return changedSessions("refreshed", request,
                           store.refreshSessions(given.realm, selectorIn(request), given.value, presentTime()));
}

MethodResult getTrace(const Request&, Store& store) {
    return {.object = {{field::kLevel, store.traceLevel()}}};
}

MethodResult setTrace(const Request& request, Store& store) {
    const int level = request.parameters().level;
    store.setTraceLevel(level);
    return {.object = {{field::kLevel, level}},
            .changed = "trace level is " + std::to_string(level),
            .topic = Topic::kNotice,  // at every level: it says what else the log will hold
            .traceLevel = level};
}

constexpr FieldRule kReplicaSet[] = {{field::kReplicaSet, Kind::kText, &Parameters::replicaSet}};
constexpr FieldRule kRealm{field::kRealm, Kind::kText, &Parameters::realm};
constexpr FieldRule kSelector{field::kSelector, Kind::kSelector, &Parameters::selector};
constexpr FieldRule kSessions[] = {kRealm, kSelector, {field::kValue, Kind::kText, &Parameters::value}};
constexpr FieldRule kListing[] = {kRealm,
                                  kSelector,
                                  {field::kValue, Kind::kText, &Parameters::value, kMaxPatternBytes},
                                  {.name = field::kMax,
                                   .kind = Kind::kInteger,
                                   .number = &Parameters::max,
                                   .least = -1,
                                   .most = std::numeric_limits<std::int32_t>::max()}};
constexpr FieldRule kLevel[] = {
    {.name = field::kLevel, .kind = Kind::kInteger, .number = &Parameters::level, .most = Log::kMaxLevel}};

constexpr Method kMethods[] = {
    {method::kClusterGet, Lane::kQuick, {}, getCluster},
    {method::kReplicaSetGet, Lane::kQuick, kReplicaSet, getReplicaSet},
    {method::kKeyChange, Lane::kChange, {}, changeKey},
    {method::kSessionList, Lane::kListing, kListing, listSessions},
    {method::kSessionTerminate, Lane::kChange, kSessions, terminateSessions},
    {method::kSessionRefresh, Lane::kChange, kSessions, refreshSessions},
    {method::kTraceGet, Lane::kQuick, {}, getTrace},
    {method::kTraceSet, Lane::kChange, kLevel, setTrace},
};

}  // namespace

std::span<const Method> allMethods() {
    return kMethods;
}

const Method* findMethod(std::string_view name) {
    for (const Method& method : kMethods) {
        if (name == method.name) {
            return &method;
        }
    }
    return nullptr;
}

}  // namespace dsessd
