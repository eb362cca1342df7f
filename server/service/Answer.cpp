#include "server/service/Answer.h"

#include <boost/json/serialize.hpp>
#include <cassert>
#include <cstdlib>
#include <utility>

#include "protocol/protocol.h"
#include "server/service/Json.h"

namespace dsessd {

namespace {

namespace json = boost::json;
namespace code = protocol::code;
namespace error = protocol::error;
namespace field = protocol::field;

// Large enough that a chunk's own cost does not count, small enough to have one for each connection.
constexpr std::size_t kPieceBytes = 65'536;
/// Room for a row of a listing; most rows are shorter.
constexpr std::size_t kRowBytes = 1'024;

/// What a client is told.
struct Told {
    int httpStatus;
    int code;
    const char* name;
    /// Null: the failure's own text.
    const char* message = nullptr;
};

constexpr char kSeeLog[] = "The server failed; its log says why.";
constexpr char kBusy[] = "The server is busy; try again.";
constexpr char kTooLong[] = "This takes too long; ask for less.";

Told toldOf(Reason reason) {
    switch (reason) {
        case Reason::kNoJson:
            return {400, code::kParseError, error::kInvalidRequest};
        case Reason::kNoRequest:
            return {400, code::kInvalidRequest, error::kInvalidRequest};
        case Reason::kNoMethod:
            return {200, code::kMethodNotFound, error::kInvalidRequest};
        case Reason::kInvalidParams:
            return {200, code::kInvalidParams, error::kInvalidRequest};
        case Reason::kInvalidValue:
            return {200, code::kServiceError, error::kInvalidValue};
        case Reason::kIdentityRefused:
            return {200, code::kServiceError, error::kIdentityRefused};
        case Reason::kNotPermitted:
            return {200, code::kServiceError, error::kNotPermitted};
        case Reason::kUnknownRealm:
            return {200, code::kServiceError, error::kUnknownRealm};
        case Reason::kUnknownReplicaSet:
            return {200, code::kServiceError, error::kUnknownReplicaSet};
        case Reason::kNoMatchingSession:
            return {200, code::kServiceError, error::kNoMatchingSession};
        case Reason::kOtherChange:
            return {200, code::kServiceError, error::kOtherChange};
        case Reason::kOtherCluster:
            return {200, code::kServiceError, error::kOtherCluster};
        case Reason::kBusy:
            return {503, code::kInternalError, error::kServerFailure, kBusy};
        case Reason::kInterrupted:
            return {200, code::kInternalError, error::kServerFailure, kTooLong};
        case Reason::kFailed:
            return {200, code::kInternalError, error::kServerFailure, kSeeLog};
        case Reason::kUncertain:
            return {500, code::kInternalError, error::kServerFailure, kSeeLog};
        case Reason::kUnavailable:
        case Reason::kReplaced:
        case Reason::kNotNow:
            return {503, code::kInternalError, error::kServerFailure, kSeeLog};
    }
    std::abort();
}

std::string asText(const char* outcome, const json::object& object) {
    return std::string("\"").append(outcome).append("\":").append(json::serialize(object));
}

}  // namespace

std::span<const char* const> outcomes() {
    static constexpr const char* kAll[] = {outcome::kDone,       outcome::kDoneBefore,      outcome::kBusy,
                                           outcome::kNoStore,    error::kIdentityRefused,   error::kNotPermitted,
                                           error::kUnknownRealm, error::kUnknownReplicaSet, error::kNoMatchingSession,
                                           error::kInvalidValue, error::kInvalidRequest,    error::kServerFailure,
                                           error::kOtherCluster, error::kOtherChange};
    return kAll;
}

const char* errorName(Reason reason) {
    return toldOf(reason).name;
}

bool isForTheLog(Reason reason) {
    return toldOf(reason).message == kSeeLog;
}

std::string beginAnswer(std::string_view id, std::string_view clusterId) {
    std::string text = std::string("{\"").append(field::kJsonRpc).append("\":\"").append(field::kVersion);
    text.append("\",\"").append(field::kId).append("\":").append(id).append(",\"").append(field::kClusterId);
    text += "\":";
    appendQuoted(text, clusterId);
    return text += ',';
}

std::string resultText(const json::object& result) {
    return asText(field::kResult, result);
}

std::string errorText(const Failure& failure) {
    const Told told = toldOf(failure.reason());
    const json::object data{{field::kName, told.name}};
    return asText(field::kError, {{field::kErrorCode, told.code},
                                  {field::kErrorMessage, told.message == nullptr ? failure.what() : told.message},
                                  {field::kErrorData, data}});
}

void Answer::refuse(std::string_view id, std::string_view clusterId, const Failure& failure) {
    const Reason reason = failure.reason();
    httpStatus = toldOf(reason).httpStatus;
    lacksStore = reason == Reason::kUnavailable || reason == Reason::kReplaced;
    outcome = lacksStore ? outcome::kNoStore : httpStatus == 503 ? outcome::kBusy : errorName(reason);
    text = beginAnswer(id, clusterId) + errorText(failure) + '}';
}

ListingAnswer::ListingAnswer(StorePool::Lease store, std::unique_ptr<Store::SessionListing> listing, std::string head)
    : m_store(std::move(store)), m_listing(std::move(listing)), m_head(std::move(head)) {
    assert(m_listing != nullptr);
    m_head.append("\"").append(field::kResult).append("\":{\"");
    m_head.append(field::kTotal).append("\":").append(std::to_string(m_listing->total()));
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

}  // namespace dsessd
