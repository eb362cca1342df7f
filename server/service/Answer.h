/// What is answered: the status of HTTP and the text. docs/protocol.md has the form; examples:
///
///     {"jsonrpc":"2.0","id":1,"clusterId":"...","result":{"level":3}}
///     {"jsonrpc":"2.0","id":1,"clusterId":"...","error":{"code":-32000,"message":"...","data":{"name":"unknown-realm"}}}
#pragma once

#include <boost/json/object.hpp>
#include <chrono>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "server/log/Failure.h"
#include "server/store/Store.h"

namespace dsessd {

/// The rest of a listing, produced piece by piece while it is sent, so that its size does not matter. Used by one
/// thread at a time.
class ListingAnswer {
  public:
    /// `listing` is one of `store`. `head`: the answer up to the result.
    ListingAnswer(StorePool::Lease store, std::unique_ptr<Store::SessionListing> listing, std::string head);
    /// Gives the next piece of the answer, empty after the last. Throws a Failure of the store.
    std::string next();
    /// Whether the last piece was given.
    bool done() const { return m_done; }

  private:
    StorePool::Lease m_store;
    std::unique_ptr<Store::SessionListing> m_listing;
    /// Text that stands before the sessions and has not been taken yet.
    std::string m_head;
    bool m_isFirst = true;
    bool m_done = false;
};

/// The outcomes of a request that are no error. The others are the names of errors (protocol::error).
namespace outcome {
inline constexpr char kDone[] = "done";
inline constexpr char kDoneBefore[] = "done before";  // a change that is answered from its record
inline constexpr char kBusy[] = "busy";
inline constexpr char kNoStore[] = "store out of reach";
}  // namespace outcome

/// All of these, and all names of errors.
std::span<const char* const> outcomes();

struct Answer {
    int httpStatus = 200;
    /// Whether a status of 503 is the store's doing and not the server's (protocol::kUnavailable).
    bool lacksStore = false;
    /// The body, or its first piece.
    std::string text;
    /// What follows the text, if anything.
    std::unique_ptr<ListingAnswer> rest;
    /// How long it is to be held back.
    std::chrono::milliseconds delay{0};
    /// What the log and the metrics call this answer: one of outcomes().
    const char* outcome = outcome::kDone;

    /// Turns this into the answer for a request that has failed.
    void refuse(std::string_view id, std::string_view clusterId, const Failure& failure);
};

/// The text of an answer up to its result or error. `id` is JSON.
std::string beginAnswer(std::string_view id, std::string_view clusterId);
/// The result or the error, without the brace that ends the answer.
std::string resultText(const boost::json::object& result);
std::string errorText(const Failure& failure);

/// The name of the error that a client is told.
const char* errorName(Reason reason);
/// Whether the log gets the failure's text. The client is then told only that the server failed.
bool isForTheLog(Reason reason);

}  // namespace dsessd
