/// The methods of the protocol: the one table of what each takes, in which lane it is carried out, and what it does.
#pragma once

#include <boost/json/object.hpp>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "server/log/Log.h"
#include "server/service/Lane.h"
#include "server/service/Request.h"
#include "server/store/Store.h"

namespace dsessd {

/// What a method has done.
struct MethodResult {
    /// The result as it stands in the answer, unless it is a listing.
    boost::json::object object{};
    std::unique_ptr<Store::SessionListing> listing{};
    /// For the log, once the change is made: what has changed. Empty: nothing has.
    std::string changed{};
    Topic topic = Topic::kAudit;
    /// What the log's level is now.
    std::optional<int> traceLevel{};
};

struct Method {
    const char* name;
    Lane lane;
    /// The parameters of its own. Every method that changes something also takes changeId and clusterId.
    std::span<const FieldRule> takes;
    /// Carries the method out. Throws a Failure that says why it could not. May be called again afterwards; the store
    /// does so when a transaction has to be repeated.
    MethodResult (*run)(const Request& request, Store& store);

    bool changes() const { return lane == Lane::kChange; }
};

std::span<const Method> allMethods();
/// Null: there is no such method.
const Method* findMethod(std::string_view name);

}  // namespace dsessd
