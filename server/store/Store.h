/// The cluster's lasting state: realms, replica sets, members, sessions, keys, settings, administrators, and the
/// answers to changes. It lies in one SQLite file, which several processes of a machine may use, or in a PostgreSQL
/// database, which several machines may: servers, `dsessd load`, `dsessd admin`. The same comes out of both. What a
/// function that changes something has returned from is on the disk, and what any other store of the cluster shows from
/// then on.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "runtime/ThreadAnnotations.h"
#include "server/log/Failure.h"
#include "server/store/Administrator.h"

namespace dsessd {

/// Seconds since 1970-01-01 00:00:00 UTC, as they go over the wire.
using Seconds = std::int32_t;
Seconds presentTime();

/// The longest name, identifier or label that is stored, in bytes.
inline constexpr std::size_t kMaxNameBytes = 1024;

struct Realm {
    std::string name;
    std::vector<std::string> replicaSets;
};

struct Key {
    std::string label;
    Seconds time = 0;
    /// When the key before it was made; 0: there was none.
    Seconds previousTime = 0;
};

struct ClusterState {
    std::vector<Realm> realms;
    Key key;
};

struct Member {
    std::string name;
    Seconds lastContact = 0;
};

/// Valid until the listing's next step.
struct SessionRow {
    std::string_view id;
    std::string_view user;
    Seconds time = 0;
};

/// So many sessions are best added at a time.
inline constexpr std::size_t kSessionsAtOnce = 500;

struct NewSession {
    std::int64_t realm = 0;
    std::string id;
    std::string user;
    Seconds time = 0;
};

/// By what sessions are selected.
enum class Selector { kUser, kSession };

/// By what a change is known again when it is repeated.
struct ChangeRecord {
    /// Made by whoever asks for the change; empty: it will not be known again.
    std::string_view id;
    std::string_view user;
    /// Stands for all that the change is about, in printable characters; equal only for equal content.
    std::string_view digest;
};

/// Takes a cluster part by part. Parts may come before the whole they belong to; numbers tie them together.
class ClusterTaker {
  public:
    ClusterTaker() = default;
    ClusterTaker(const ClusterTaker&) = delete;
    ClusterTaker& operator=(const ClusterTaker&) = delete;
    virtual ~ClusterTaker() = default;

    /// An empty identifier, or no level: what there is stays.
    virtual void setCluster(std::string_view id, std::optional<int> traceLevel) = 0;
    /// Those that are added after this are all there are.
    virtual void clearAdministrators() = 0;
    /// These return false when there is such a name already.
    virtual bool addAdministrator(const Administrator& administrator) = 0;
    virtual bool addRealm(std::int64_t number, std::string_view name) = 0;
    virtual bool addReplicaSet(std::int64_t number, std::int64_t realm, std::string_view name) = 0;
    virtual bool addMember(std::int64_t replicaSet, const Member& member) = 0;
    /// The last one added is the current one. False: there is such a label already.
    virtual bool addKey(std::string_view label, Seconds time) = 0;
    /// The newest comes last. One that is known already stays as it is.
    virtual void addChange(const ChangeRecord& change, std::string_view answer) = 0;
    /// Adds sessions, best kSessionsAtOnce of them in a call. When a realm has a session of the same identifier
    /// already, gives the index of the first such session in `sessions`; the taker must not be used any more then.
    virtual std::optional<std::size_t> addSessions(const std::vector<NewSession>& sessions) = 0;
};

/// Of the tables and what they mean.
struct StoreVersions {
    int before = 0;
    int now = 0;
};

/// One connection to the file or database. Used by one thread at a time. Whatever fails throws a Failure, and
/// nothing is changed then, unless it is Reason::kUncertain. A connection that was lost is made anew at its next use.
class Store {
  public:
    /// What open() does when there is no such file, or no cluster in the database.
    enum class IfMissing { kFail, kCreate };
    /// What has happened to a connection of the store.
    enum class Event { kLost, kMadeAnew, kNotice };
    /// Takes such an event with one line for people about it. Called by the thread that uses the store.
    using Say = std::function<void(Event event, const std::string& line)>;
    /// `data`: the path of a file, or a URI that begins with `postgresql://` or `postgres://`. `say` empty: standard
    /// error takes the lines.
    static std::unique_ptr<Store> open(const std::string& data, IfMissing ifMissing, Say say = {});
    /// Puts a file that backUp() made in the place of a data file, which nobody may have open, once it is found whole.
    /// One that was damaged, or no data file, is then beside it as `.damaged`, and true is returned.
    static bool restore(const std::string& data, const std::string& file);
    /// Raises what an older version has left, in one transaction. Refused with Reason::kBusy while it is in use.
    static StoreVersions upgrade(const std::string& data);
    /// What messages call it, without a password.
    static std::string describe(const std::string& data);
    /// Whether the data are in a database server, and not in a file, which this process reads itself.
    static bool isDatabase(const std::string& data);
    Store() = default;
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;
    virtual ~Store() = default;

    /// What is asked every now and then while a statement runs or waits for another process: true ends it. Empty:
    /// nothing ends it, and another process is waited for up to 10 seconds. Must not throw.
    virtual void endWhen(std::function<bool()> impatient) = 0;
    /// False: not to be used again. A transaction could not be undone, for want of memory, or a commit has failed.
    virtual bool isSound() const { return true; }
    /// One more connection to the same file or database: what has come to its place since is refused as unavailable.
    /// Safe to call while another thread uses this one.
    virtual std::unique_ptr<Store> another() const = 0;
    /// Gives its connection to a database back until it is used again.
    virtual void rest() {}
    /// Throws Reason::kUnavailable unless what this store shows is sure to last: its file is still there, and no commit
    /// has failed that a crash could bring back.
    virtual void beReliable() = 0;
    /// Makes a change that shows nowhere, to be sure that changes can be made.
    virtual void tryWriting() = 0;

    /// Names the cluster: a UUID made with the store. New contents (replace()) are still the same cluster.
    virtual std::string clusterId() = 0;

    virtual ClusterState cluster() = 0;
    /// Nothing: no replica set of this name.
    virtual std::optional<std::vector<Member>> members(std::string_view replicaSet) = 0;

    /// The sessions of a realm whose user (or identifier) matches a pattern, sorted by user, time and identifier, read
    /// one by one. They come from one state of the store, whatever changes meanwhile.
    class SessionListing {
      public:
        virtual ~SessionListing() = default;
        virtual std::int32_t total() const = 0;
        virtual std::int32_t count() const = 0;
        /// False: no more; not to be called again then.
        virtual bool next(SessionRow& row) = 0;
    };
    /// At most one listing of a store at a time. `pattern`: `*` any characters, `?` one character, all else literally.
    /// `max`: the most that are wanted, -1 for all. Null: no such realm.
    virtual std::unique_ptr<SessionListing> listSessions(std::string_view realm, Selector selector,
                                                         std::string_view pattern, std::int32_t max) = 0;

    /// The number of sessions changed. Nothing: no such realm.
    virtual std::optional<int> terminateSessions(std::string_view realm, Selector selector, std::string_view value) = 0;
    virtual std::optional<int> refreshSessions(std::string_view realm, Selector selector, std::string_view value,
                                               Seconds now) = 0;
    /// Removes the rows of some sessions that have ended, in one short transaction. Terminating many sessions leaves
    /// their rows to this, so it has to be called now and then. False: there were none.
    virtual bool removeEnded() { return false; }
    /// Makes a new key the current one.
    virtual Key changeKey(Seconds now) = 0;

    /// Carries out a change once, however often and at however many nodes of the cluster it is asked for. In one
    /// transaction: `action` runs and makes its changes through this store; its answer, text without NUL, is recorded
    /// under the change's identifier for at least an hour. When it is recorded already, for the same user and content,
    /// that answer comes back and `action` does not run; of two nodes that ask at a time one waits for the other.
    ///
    /// Whatever `action` throws comes out of here, with nothing changed and nothing recorded; it must not swallow a
    /// Failure. Conflicts with another node may run it once more from the start, so that it should touch nothing
    /// but this store. Throws Reason::kOtherChange. Not to be called inside itself.
    virtual std::string once(const ChangeRecord& change, const std::function<std::string()>& action) = 0;

    /// What was done with administrators on a machine itself, as far as the record of changes goes back.
    struct LocalAct {
        std::string id;
        std::string text;
    };
    /// Carries out such an act once(). It gives the text that the log of each node is to have.
    void doLocally(const std::function<std::string()>& act);
    virtual std::vector<LocalAct> localActs() = 0;

    /// Notes that a member of a replica set was there, and adds it when it is none yet. False: no such replica set.
    virtual bool contact(std::string_view replicaSet, const Member& member) = 0;

    virtual int traceLevel() = 0;
    virtual void setTraceLevel(int level) = 0;

    virtual std::optional<Administrator> administrator(std::string_view name) = 0;
    virtual std::vector<Administrator> administrators() = 0;
    /// Adds an administrator or changes the one of this name; says whether it is new.
    virtual bool putAdministrator(const Administrator& administrator) = 0;
    /// False: there is none of this name.
    virtual bool removeAdministrator(std::string_view name) = 0;

    /// Gives all that there is, but for members' numbers and the like, as it is at one moment: the cluster and the
    /// administrators first, then keys and changes from the oldest on, then each realm with its parts. Nothing changes
    /// that for as long as it takes, so `taker` should not wait for anybody slow.
    virtual void giveTo(ClusterTaker& taker) = 0;

    /// Copies a data file, as it is at one moment, to `path`, an empty file. Throws a Failure for a database.
    virtual void backUp(const std::string& path) = 0;

    /// New contents of the cluster, all in one transaction, undone unless committed.
    class Replacement : public ClusterTaker {
      public:
        /// Makes a first key when none was added.
        virtual void commit() = 0;
    };
    /// Begins by emptying the cluster; administrators, the trace level, the cluster's identifier and recorded changes
    /// stay, unless other ones are added.
    virtual std::unique_ptr<Replacement> replace() = 0;
};

/// Connections to one store, opened as they are needed. Those handed back are kept for the next; what nobody has used
/// for a minute is closed, but for one.
class StorePool {
  public:
    /// The first is opened here; further ones are to the same file or database. At most `most` are in use at a time.
    /// Throws Failure.
    explicit StorePool(const std::string& data, Store::Say say = {}, std::size_t most = kAnyNumber);
    static constexpr std::size_t kAnyNumber = std::numeric_limits<std::size_t>::max();

    struct Returner {
        StorePool* pool;
        void operator()(Store* store) const { pool->giveBack(store); }
    };
    using Lease = std::unique_ptr<Store, Returner>;
    /// A reliable one. The pool must outlive the lease. Waits while all are in use. Throws Failure. `impatient`: see
    /// Store::endWhen().
    Lease take(std::function<bool()> impatient = {});
    /// Whether the store is a file, which this process reads itself, and not a database server.
    bool isEmbedded() const;

  private:
    struct Idle {
        std::unique_ptr<Store> store;
        std::chrono::steady_clock::time_point since;
    };

    std::unique_ptr<Store> takeIdle(const std::function<bool()>& impatient);
    void giveBack(Store* store);
    void giveBack(std::unique_ptr<Store> store);

    const bool m_isEmbedded;
    const std::size_t m_most;
    const std::unique_ptr<Store> m_first;
    Mutex m_mutex;
    std::condition_variable m_returned;
    std::size_t m_used GUARDED_BY(m_mutex) = 0;
    /// Whoever was used last is last.
    std::vector<Idle> m_idle GUARDED_BY(m_mutex);
};

}  // namespace dsessd
