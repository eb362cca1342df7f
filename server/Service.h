/// The administration protocol (docs/protocol.md): text of a request in, text of an answer out. No sockets.
#pragma once

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <memory>
#include <mutex>
#include <string>
#include <string_view>

#include "runtime/SecretBuffer.h"
#include "server/Authenticator.h"
#include "server/Log.h"
#include "server/Store.h"

namespace dsessd {

/// Where a request came from, for the log.
struct Peer {
    std::string address;
    /// Subject of the client's certificate; empty: there is none.
    std::string certificate;
};

/// The rest of a listing, produced piece by piece while it is sent, so that its size does not matter.
class ListingAnswer {
  public:
    ListingAnswer(StorePool::Lease store, std::unique_ptr<Store::SessionListing> listing, std::string_view id);
    /// Gives the next piece of the answer, empty after the last. Throws StoreError.
    std::string next();
    /// Whether the last piece was given.
    bool done() const { return m_done; }

  private:
    StorePool::Lease m_store;
    std::unique_ptr<Store::SessionListing> m_listing;
    std::string m_tail;
    rapidjson::StringBuffer m_buffer;
    rapidjson::Writer<rapidjson::StringBuffer> m_writer;
    bool m_done = false;
};

/// An answer: a status of HTTP and the body, or its first piece.
struct Answer {
    int httpStatus = 200;
    std::string text;
    /// What follows the text, if anything.
    std::unique_ptr<ListingAnswer> rest;
};

/// Who asks before any login; no administrator bears this name.
inline constexpr char kAnonymousUser[] = "anonymous";

/// What may be done without a login.
enum class Anonymous { kNone, kRead };

/// Safe to use from several threads at a time.
class Service {
  public:
    /// The longest pattern that session.list takes, in bytes.
    static constexpr std::size_t kMaxPatternBytes = 4096;

    Service(StorePool& stores, Authenticator& authenticator, Log& log, Anonymous anonymous);

    /// Answers one request. Its text is changed: it is parsed in place. Failures of the store are logged and answered.
    Answer handle(SecretBuffer& request, const Peer& peer);

  private:
    struct Call;
    struct Method;
    static const Method kMethods[];

    void read(SecretBuffer& request, Call& call) const;
    Answer answer(SecretBuffer& request, Call& call);
    void identify(Call& call);
    void permit(const Call& call) const;
    void logRequest(const Call& call, std::string_view outcome, std::string_view duration);
    void changed(const Call& call, Topic topic, const std::string& what);

    void getCluster(Call& call);
    void getReplicaSet(Call& call);
    void changeKey(Call& call);
    void listSessions(Call& call);
    void terminateSessions(Call& call);
    void refreshSessions(Call& call);
    void getTrace(Call& call);
    void setTrace(Call& call);

    StorePool& m_stores;
    Authenticator& m_authenticator;
    Log& m_log;
    Anonymous m_anonymous;
    /// One change at a time; without it, connections of one process would wait for each other by polling.
    std::timed_mutex m_changing;
};

}  // namespace dsessd
