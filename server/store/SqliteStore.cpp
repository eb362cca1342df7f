/// The store in an SQLite file: its schema and its statements.

#include <SQLiteCpp/SQLiteCpp.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <map>
#include <utility>

#include "runtime/QelFileDescriptor.h"
#include "server/store/SqliteConnection.h"
#include "server/store/SqliteSchema.h"
#include "server/store/StoreEngines.h"

namespace dsessd {

using namespace embedded;

namespace {

// How long to wait for another process that writes: a load, or a change of an administrator.
constexpr int kBusyMilliseconds = 10'000;
constexpr int kBusyPause = 5;

// Few, since one step may match a long pattern with a long name, which takes milliseconds.
constexpr int kStepsBetweenChecks = 100;

// From so many pages in the write-ahead log on, a commit moves them to the file as far as readers let it, and then
// waits for readers, so that the log begins anew.
constexpr int kMovePages = 1'000;
constexpr int kRestartPages = 8'000;
constexpr std::chrono::seconds kWaitForReaders{1};

// The most sessions of a user that are removed at once when they end. Of more, so many are removed at a time, later.
constexpr int kRemoveAtOnce = 250;

// When so many sessions of a load were not in the order of their users, the index of users is made after the load, all
// at once. To put them into it one by one would take three times as long.
constexpr int kSortFrom = 1'000;

/// Room in memory for a change of as many sessions as there may be; without it, each would be read and written anew
/// for every one of its neighbours.
class LargeCache {
  public:
    LargeCache(SQLite::Database& database, Selector selector) : m_database(database) {
        if (selector == Selector::kUser) {
            execute(database, "PRAGMA cache_size=-262144");  // KiB, at most
        }
    }
    LargeCache(const LargeCache&) = delete;
    LargeCache& operator=(const LargeCache&) = delete;
    ~LargeCache() { m_database.tryExec("PRAGMA cache_size=-2000"); }

  private:
    SQLite::Database& m_database;
};

/// SQLite would make a file that others may read.
void createPrivateFile(const std::string& path) {
    const QelFileDescriptor file(::open(path.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!file.isOpen()) {
        throw Failure(path + " cannot be made: " + std::strerror(errno));
    }
}

/// A pattern of `*` and `?` as SQLite's GLOB takes it, to which `[` is special too.
std::string globOf(std::string_view pattern) {
    std::string glob;
    for (const char c : pattern) {
        if (c == '[') {
            glob += "[[]";
        } else if (c != '*' || glob.empty() || glob.back() != '*') {
            glob += c;
        }
    }
    return glob;
}

/// In the order of users, from user ?4 up to user ?5, who is not included.
constexpr char kInOrder[] = " AND user >= ?4 AND user < ?5 ORDER BY user, time, id LIMIT ?3";
/// For fewer than kFewSessions: the plus hides the order of users from SQLite, so that it finds them by identifiers.
constexpr char kSorted[] = " ORDER BY +user, time, id LIMIT ?3";

/// The text of a statement on those sessions of a realm that meet a condition and have not ended. ?1 is the realm.
std::string onSessions(const char* what, const char* condition) {
    return std::string(what) + " WHERE realm = ?1 AND " + condition +
           " AND (NOT EXISTS (SELECT 1 FROM ended) OR user NOT IN (SELECT user FROM ended WHERE realm = ?1))";
}

struct Statements {
    explicit Statements(const SQLite::Database& db)
        : version(db, "PRAGMA data_version"),
          realms(db, "SELECT number, name FROM realms ORDER BY number"),
          realm(db, "SELECT number FROM realms WHERE name = ?"),
          replicaSets(db, "SELECT name FROM replica_sets WHERE realm = ? ORDER BY number"),
          replicaSet(db, "SELECT number FROM replica_sets WHERE name = ?"),
          members(db, "SELECT name, last_contact FROM members WHERE replica_set = ? ORDER BY number"),
          keys(db, "SELECT label, time FROM keys ORDER BY number DESC LIMIT 2"),
          countAll(db, "SELECT sessions FROM realms WHERE number = ?"),
          addToCount(db, "UPDATE realms SET sessions = sessions + ? WHERE number = ?"),
          setCount(db, "UPDATE realms SET sessions = ? WHERE number = ?"),
          countByUser(db, onSessions("SELECT count(*) FROM sessions", "user GLOB ?2")),
          countById(db, onSessions("SELECT count(*) FROM sessions", "id GLOB ?2")),
          listByUser(db, onSessions("SELECT id, user, time FROM sessions", "+user GLOB ?2") + kInOrder),
          listById(db, onSessions("SELECT id, user, time FROM sessions", "id GLOB ?2") + kInOrder),
          listFewById(db, onSessions("SELECT id, user, time FROM sessions", "id GLOB ?2") + kSorted),
          countOfUser(db, onSessions("SELECT count(*) FROM sessions", "user = ?2")),
          terminateByUser(db, onSessions("DELETE FROM sessions", "user = ?2")),
          terminateById(db, onSessions("DELETE FROM sessions", "id = ?2")),
          refreshByUser(db, onSessions("UPDATE sessions SET time = ?3", "user = ?2")),
          refreshById(db, onSessions("UPDATE sessions SET time = ?3", "id = ?2")),
          end(db, "INSERT INTO ended (realm, user) VALUES (?, ?)"),
          ended(db, "SELECT realm, user FROM ended LIMIT 1"),
          endedBetween(db, "SELECT user FROM ended WHERE realm = ? AND user >= ? AND user < ? ORDER BY user"),
          removeEnded(db,
                      "DELETE FROM sessions WHERE realm = ?1 AND id IN "
                      "(SELECT id FROM sessions WHERE realm = ?1 AND user = ?2 LIMIT ?3)"),
          allRemoved(db, "DELETE FROM ended WHERE realm = ? AND user = ?"),
          clusterId(db, "SELECT id FROM cluster"),
          change(db, "SELECT user, digest, answer FROM changes WHERE id = ?"),
          newestChange(db, "SELECT coalesce(max(number), 0) FROM changes"),
          localActs(db, "SELECT id, answer FROM changes WHERE id >= ? AND id < ? AND user = '' ORDER BY number"),
          recordChange(db, "INSERT INTO changes (id, user, digest, answer, number) VALUES (?, ?, ?, ?, ?)"),
          forgetChanges(db,
                        "DELETE FROM changes WHERE id IN "
                        "(SELECT id FROM changes WHERE number <= ? ORDER BY number LIMIT ?)"),
          contact(db,
                  "INSERT INTO members (replica_set, name, last_contact) VALUES (?, ?, ?) "
                  "ON CONFLICT (replica_set, name) DO UPDATE SET last_contact = excluded.last_contact"),
          setting(db, "SELECT value FROM settings WHERE name = ?"),
          putSetting(db,
                     "INSERT INTO settings (name, value) VALUES (?, ?) "
                     "ON CONFLICT (name) DO UPDATE SET value = excluded.value"),
          administrator(db, "SELECT name, password_hash, role FROM administrators WHERE name = ?"),
          administrators(db, "SELECT name, password_hash, role FROM administrators ORDER BY name"),
          putAdministrator(db,
                           "INSERT INTO administrators (name, password_hash, role) VALUES (?, ?, ?) ON CONFLICT (name) "
                           "DO UPDATE SET password_hash = excluded.password_hash, role = excluded.role"),
          removeAdministrator(db, "DELETE FROM administrators WHERE name = ?"),
          addRealm(db, "INSERT INTO realms (number, name) VALUES (?, ?)"),
          addReplicaSet(db, "INSERT INTO replica_sets (number, realm, name) VALUES (?, ?, ?)"),
          addMember(db, "INSERT INTO members (replica_set, name, last_contact) VALUES (?, ?, ?)"),
          addSession(db, "INSERT INTO sessions (realm, id, user, time) VALUES (?, ?, ?, ?)"),
          addKey(db, "INSERT INTO keys (label, time) VALUES (?, ?)"),
          setClusterId(db, "UPDATE cluster SET id = ?"),
          allKeys(db, "SELECT label, time FROM keys ORDER BY number"),
          allChanges(db, "SELECT id, user, digest, answer FROM changes ORDER BY number"),
          allReplicaSets(db, "SELECT number, name FROM replica_sets WHERE realm = ? ORDER BY number"),
          allSessions(db, onSessions("SELECT id, user, time FROM sessions", "true") + " ORDER BY id") {}

    SQLite::Statement version, realms, realm, replicaSets, replicaSet, members, keys;
    SQLite::Statement countAll, addToCount, setCount, countByUser, countById, listByUser, listById, listFewById;
    SQLite::Statement countOfUser, terminateByUser, terminateById, refreshByUser, refreshById;
    SQLite::Statement end, ended, endedBetween, removeEnded, allRemoved;
    SQLite::Statement clusterId, change, newestChange, localActs, recordChange, forgetChanges, contact, setting,
        putSetting;
    SQLite::Statement administrator, administrators, putAdministrator, removeAdministrator;
    SQLite::Statement addRealm, addReplicaSet, addMember, addSession, addKey, setClusterId;
    SQLite::Statement allKeys, allChanges, allReplicaSets, allSessions;
};

std::string clusterIdOf(Statements& statements) {
    Query query(statements.clusterId);
    if (!query.step()) {
        throw Failure("the cluster has no identifier");
    }
    return std::string(query.text(0));
}

std::int32_t firstOf(Query query) {
    query.step();
    return query.integer32(0);
}

std::int64_t newestChange(Statements& statements) {
    Query query(statements.newestChange);
    query.step();
    return query.integer(0);
}

void put(Statements& statements, const Administrator& administrator) {
    Query(statements.putAdministrator, administrator.name, administrator.passwordHash, nameOf(administrator.role))
        .step();
}

Administrator administratorOf(const Query& row) {
    return {std::string(row.text(0)), std::string(row.text(1)),
            row.text(2) == nameOf(Role::kChange) ? Role::kChange : Role::kRead};
}

/// A text that is greater than all texts with this prefix, in the order of bytes. UTF-8 has no byte 0xFF.
std::string endOf(const std::string& prefix) {
    return prefix + '\xff';
}

class Listing final : public Store::SessionListing {
  public:
    explicit Listing(Connection& connection) : m_transaction(connection, Transaction::Kind::kRead) {}

    void start(Statements& statements, std::int64_t realm, Selector selector, const std::string& glob,
               std::int32_t max) {
        const bool byUser = selector == Selector::kUser;
        m_total = glob == "*" ? firstOf(Query(statements.countAll, realm))
                              : firstOf(Query(byUser ? statements.countByUser : statements.countById, realm, glob));
        m_count = max < 0 ? m_total : std::min(m_total, max);
        m_realm = realm;
        m_glob = glob;
        if (!byUser && m_total < kFewSessions) {
            m_rows.emplace(statements.listFewById, realm, glob, m_count);
            return;
        }
        m_inOrder = byUser ? &statements.listByUser : &statements.listById;
        // Sessions that have ended are passed over, not read one by one: there may be millions.
        m_from = byUser ? glob.substr(0, glob.find_first_of("*?[")) : "";
        const std::string end = endOf(m_from);
        for (Query ended(statements.endedBetween, realm, m_from, end); ended.step();) {
            m_ends.emplace_back(ended.text(0));
        }
        m_ends.push_back(end);
    }
    std::int32_t total() const override { return m_total; }
    std::int32_t count() const override { return m_count; }
    bool next(SessionRow& row) override {
        while (!m_rows || !m_rows->step()) {
            if (m_ends.empty()) {
                return false;
            }
            const std::string end = std::move(m_ends.front());
            m_ends.pop_front();
            m_rows.reset();
            m_rows.emplace(*m_inOrder, m_realm, m_glob, m_count - m_given, std::exchange(m_from, end + '\0'), end);
        }
        ++m_given;
        row = {m_rows->text(0), m_rows->text(1), m_rows->integer32(2)};
        return true;
    }

  private:
    Transaction m_transaction;
    std::int32_t m_total = 0;
    std::int32_t m_count = 0;
    std::int32_t m_given = 0;
    std::optional<Query> m_rows;

    // A listing in the order of users goes from m_from to the first of m_ends, then from there to the next. All but the
    // last are users whose sessions have ended, so that these are left out.
    SQLite::Statement* m_inOrder = nullptr;
    std::int64_t m_realm = 0;
    std::string m_glob;
    std::string m_from;
    std::deque<std::string> m_ends;
};

class Replacing final : public Store::Replacement {
  public:
    Replacing(Connection& connection, Statements& statements)
        : m_database(connection.database),
          m_statements(statements),
          m_transaction(connection, Transaction::Kind::kWrite) {
        execute(m_database,
                "DELETE FROM ended; DELETE FROM sessions; DELETE FROM members; DELETE FROM replica_sets; DELETE FROM "
                "realms; DELETE FROM keys");
    }

    void setCluster(std::string_view id, std::optional<int> traceLevel) override {
        if (!id.empty()) {
            Query(m_statements.setClusterId, id).step();
        }
        if (traceLevel) {
            Query(m_statements.putSetting, "trace level", *traceLevel).step();
        }
    }
    void clearAdministrators() override { execute(m_database, "DELETE FROM administrators"); }
    bool addAdministrator(const Administrator& administrator) override {
        if (Query(m_statements.administrator, administrator.name).step()) {
            return false;
        }
        put(m_statements, administrator);
        return true;
    }
    void addChange(const ChangeRecord& change, std::string_view answer) override {
        Query(m_statements.recordChange, change.id, change.user, change.digest, answer, 1 + newestChange(m_statements))
            .insert();
    }
    bool addRealm(std::int64_t number, std::string_view name) override {
        return Query(m_statements.addRealm, number, name).insert();
    }
    bool addReplicaSet(std::int64_t number, std::int64_t realm, std::string_view name) override {
        return Query(m_statements.addReplicaSet, number, realm, name).insert();
    }
    bool addMember(std::int64_t replicaSet, const Member& member) override {
        return Query(m_statements.addMember, replicaSet, member.name, member.lastContact).insert();
    }
    std::optional<std::size_t> addSessions(const std::vector<NewSession>& sessions) override {
        for (const NewSession& session : sessions) {
            if (session.user < m_lastUser && ++m_disorder == kSortFrom) {
                execute(m_database, "DROP INDEX sessions_by_user");
            }
            m_lastUser = session.user;
            if (!Query(m_statements.addSession, session.realm, session.id, session.user, session.time).insert()) {
                return &session - sessions.data();
            }
            ++m_counts[session.realm];
        }
        return std::nullopt;
    }
    bool addKey(std::string_view label, Seconds time) override {
        return Query(m_statements.addKey, label, time).insert();
    }
    void commit() override {
        if (queryInteger(m_database, "SELECT count(*) FROM keys") == 0) {
            insertKey(m_database, presentTime());
        }
        if (m_disorder >= kSortFrom) {
            makeSessionIndex(m_database);
        }
        for (const auto& [realm, count] : m_counts) {
            Query(m_statements.setCount, count, realm).step();
        }
        m_transaction.commit();
    }

  private:
    SQLite::Database& m_database;
    Statements& m_statements;
    Transaction m_transaction;
    std::string m_lastUser;
    /// How many sessions had a user that is less than the one before.
    int m_disorder = 0;
    /// How many sessions each realm has got.
    std::map<std::int64_t, std::int64_t> m_counts;
};

/// `clusterId`: of the only cluster that will do; empty: whichever it is.
std::unique_ptr<Store> connect(const std::shared_ptr<SqliteFiles>& files, std::string clusterId);

class SqliteStore final : public Store {
  public:
    SqliteStore(Connection connection, std::string clusterId)
        : m_connection(std::move(connection)),
          m_pageBytes(queryInteger(m_database, "PRAGMA page_size")),
          m_statements(m_database),
          m_clusterId(clusterId.empty() ? clusterIdOf(m_statements) : std::move(clusterId)) {
        sqlite3* handle = m_database.getHandle();
        sqlite3_progress_handler(handle, kStepsBetweenChecks, onProgress, this);
        sqlite3_busy_handler(handle, onBusy, this);
        sqlite3_wal_hook(handle, onCommit, this);
    }

    void endWhen(std::function<bool()> impatient) override { m_impatient = std::move(impatient); }
    bool isSound() const override {
        return m_connection.isSound && sqlite3_get_autocommit(m_database.getHandle()) != 0;
    }
    std::unique_ptr<Store> another() const override { return connect(m_connection.files, m_clusterId); }

    void beReliable() override {
        m_connection.files->checkNowAndThen(m_database.getHandle());
        if (!m_connection.files->isInDoubt()) {
            return;
        }
        try {
            tryWriting();
        } catch (const Failure& failure) {
            throw Failure(failure.reason(),
                          std::string("a change before has failed, and so does another one: ") + failure.what());
        }
    }

    void tryWriting() override {
        const std::uint64_t doubts = m_connection.files->doubts();
        Transaction transaction(m_connection, Transaction::Kind::kTrial);
        setVersion(m_database);
        transaction.commit();
        m_connection.files->settle(doubts);
    }

    std::string clusterId() override { return m_clusterId; }

    /// Read anew only when somebody has changed the file: it is what most requests ask for.
    ClusterState cluster() override {
        if (version() != m_clusterVersion) {
            Transaction transaction(m_connection, Transaction::Kind::kRead);
            const auto now = version();
            m_cluster = readCluster();
            m_clusterVersion = now;
        }
        return m_cluster;
    }

    ClusterState readCluster() {
        ClusterState state;
        Query realms(m_statements.realms);
        while (realms.step()) {
            Realm& realm = state.realms.emplace_back();
            realm.name = realms.text(1);
            Query sets(m_statements.replicaSets, realms.integer(0));
            while (sets.step()) {
                realm.replicaSets.emplace_back(sets.text(0));
            }
        }
        state.key = currentKey();
        return state;
    }

    std::optional<std::vector<Member>> members(std::string_view replicaSet) override {
        Transaction transaction(m_connection, Transaction::Kind::kRead);
        Query set(m_statements.replicaSet, replicaSet);
        if (!set.step()) {
            return std::nullopt;
        }
        std::vector<Member> members;
        Query query(m_statements.members, set.integer(0));
        while (query.step()) {
            members.push_back({std::string(query.text(0)), query.integer32(1)});
        }
        return members;
    }

    std::unique_ptr<SessionListing> listSessions(std::string_view realm, Selector selector, std::string_view pattern,
                                                 std::int32_t max) override {
        auto listing = std::make_unique<Listing>(m_connection);
        const auto number = realmNumber(realm);
        if (!number) {
            return nullptr;
        }
        listing->start(m_statements, *number, selector, globOf(sought(pattern)), max);
        return listing;
    }

    std::optional<int> terminateSessions(std::string_view realm, Selector selector, std::string_view value) override {
        Transaction transaction(m_connection, Transaction::Kind::kWrite);
        const auto number = realmNumber(realm);
        if (!number) {
            return std::nullopt;
        }
        const int count = end(*number, selector, value);
        if (count != 0) {
            Query(m_statements.addToCount, -count, *number).step();
        }
        transaction.commit();
        return count;
    }

    bool removeEnded() override {
        if (!Query(m_statements.ended).step()) {
            return false;
        }
        Transaction transaction(m_connection, Transaction::Kind::kWrite);
        Query ended(m_statements.ended);
        if (ended.step()) {
            Query(m_statements.removeEnded, ended.integer(0), ended.text(1), kRemoveAtOnce).step();
            if (m_database.getChanges() < kRemoveAtOnce) {
                Query(m_statements.allRemoved, ended.integer(0), ended.text(1)).step();
            }
        }
        transaction.commit();
        return true;
    }

    std::optional<int> refreshSessions(std::string_view realm, Selector selector, std::string_view value,
                                       Seconds now) override {
        return changeSessions(selector,
                              selector == Selector::kUser ? m_statements.refreshByUser : m_statements.refreshById,
                              realm, value, now);
    }

    Key changeKey(Seconds now) override {
        Transaction transaction(m_connection, Transaction::Kind::kWrite);
        insertKey(m_database, now);
        Key key = currentKey();
        transaction.commit();
        return key;
    }

    std::string once(const ChangeRecord& change, const std::function<std::string()>& action) override {
        Transaction transaction(m_connection, Transaction::Kind::kWrite);
        if (const std::string found = clusterIdOf(m_statements); found != m_clusterId) {
            throw Failure::replaced(m_connection.files->path() + " holds another cluster now", found);
        }
        if (auto recorded = answerTo(change)) {
            return *recorded;
        }
        std::string answer = action();
        if (!change.id.empty()) {
            const std::int64_t number = 1 + newestChange(m_statements);
            Query(m_statements.recordChange, change.id, change.user, change.digest, answer, number).step();
            Query(m_statements.forgetChanges, m_ages.oldUpTo(number), kForgetAtOnce).step();
        }
        transaction.commit();
        return answer;
    }

    std::vector<LocalAct> localActs() override {
        std::vector<LocalAct> acts;
        Query query(m_statements.localActs, kLocalActs.front(), kLocalActs.back());
        while (query.step()) {
            acts.push_back({std::string(query.text(0)), std::string(query.text(1))});
        }
        return acts;
    }

    bool contact(std::string_view replicaSet, const Member& member) override {
        Transaction transaction(m_connection, Transaction::Kind::kWrite);
        Query set(m_statements.replicaSet, replicaSet);
        if (!set.step()) {
            return false;
        }
        Query(m_statements.contact, set.integer(0), member.name, member.lastContact).step();
        transaction.commit();
        return true;
    }

    int traceLevel() override {
        Query query(m_statements.setting, "trace level");
        return query.step() ? query.integer32(0) : kDefaultTraceLevel;
    }

    void setTraceLevel(int level) override {
        Transaction transaction(m_connection, Transaction::Kind::kWrite);
        Query(m_statements.putSetting, "trace level", level).step();
        transaction.commit();
    }

    /// Read anew only when somebody has changed the file: each request of a client asks for its administrator.
    std::optional<Administrator> administrator(std::string_view name) override {
        if (const auto now = version(); now != m_administratorVersion || m_administrator.name != name) {
            Query query(m_statements.administrator, name);
            if (!query.step()) {
                return std::nullopt;
            }
            m_administrator = administratorOf(query);
            m_administratorVersion = now;
        }
        return m_administrator;
    }

    std::vector<Administrator> administrators() override {
        std::vector<Administrator> all;
        Query query(m_statements.administrators);
        while (query.step()) {
            all.push_back(administratorOf(query));
        }
        return all;
    }

    bool putAdministrator(const Administrator& administrator) override {
        Transaction transaction(m_connection, Transaction::Kind::kWrite);
        const bool isNew = !this->administrator(administrator.name).has_value();
        put(m_statements, administrator);
        transaction.commit();
        return isNew;
    }

    bool removeAdministrator(std::string_view name) override {
        Transaction transaction(m_connection, Transaction::Kind::kWrite);
        Query(m_statements.removeAdministrator, name).step();
        const bool isKnown = m_database.getChanges() > 0;
        transaction.commit();
        return isKnown;
    }

    std::unique_ptr<Replacement> replace() override { return std::make_unique<Replacing>(m_connection, m_statements); }

    void backUp(const std::string& path) override { copySqliteFile(m_database, path); }

    void giveTo(ClusterTaker& taker) override {
        Transaction transaction(m_connection, Transaction::Kind::kRead);
        taker.setCluster(clusterIdOf(m_statements), traceLevel());
        taker.clearAdministrators();
        for (const Administrator& administrator : administrators()) {
            taker.addAdministrator(administrator);
        }
        for (Query row(m_statements.allKeys); row.step();) {
            taker.addKey(row.text(0), row.integer32(1));
        }
        for (Query row(m_statements.allChanges); row.step();) {
            taker.addChange({row.text(0), row.text(1), row.text(2)}, row.text(3));
        }
        for (Query realm(m_statements.realms); realm.step();) {
            taker.addRealm(realm.integer(0), realm.text(1));
            giveRealm(realm.integer(0), taker);
        }
    }

  private:
    static int onProgress(void* store) {
        const auto& impatient = static_cast<SqliteStore*>(store)->m_impatient;
        return impatient && impatient() ? 1 : 0;
    }

    static int onBusy(void* store, int tries) {
        const auto& impatient = static_cast<SqliteStore*>(store)->m_impatient;
        if (tries * kBusyPause > kBusyMilliseconds || (impatient && impatient())) {
            return 0;
        }
        sqlite3_sleep(kBusyPause);
        return 1;
    }

    static int onCommit(void* self, sqlite3* database, const char* name, int logPages) {
        auto* const store = static_cast<SqliteStore*>(self);
        store->m_connection.files->sawLog(logPages, store->m_pageBytes);
        if (logPages < kMovePages) {
            return SQLITE_OK;
        }
        auto& impatient = store->m_impatient;
        const auto end = std::chrono::steady_clock::now() + kWaitForReaders;
        auto outside = std::exchange(impatient, [end] { return std::chrono::steady_clock::now() > end; });
        const int mode = logPages < kRestartPages ? SQLITE_CHECKPOINT_PASSIVE : SQLITE_CHECKPOINT_RESTART;
        // Pages that cannot be moved to the file now are moved after the next commit.
        static_cast<void>(sqlite3_wal_checkpoint_v2(database, name, mode, nullptr, nullptr));
        impatient = std::move(outside);
        return SQLITE_OK;
    }

    void giveRealm(std::int64_t realm, ClusterTaker& taker) {
        for (Query set(m_statements.allReplicaSets, realm); set.step();) {
            taker.addReplicaSet(set.integer(0), realm, set.text(1));
            for (Query row(m_statements.members, set.integer(0)); row.step();) {
                taker.addMember(set.integer(0), {std::string(row.text(0)), row.integer32(1)});
            }
        }
        SessionBatches sessions(taker);
        for (Query row(m_statements.allSessions, realm); row.step();) {
            sessions.add(realm, row.text(0), row.text(1), row.integer32(2));
        }
        sessions.flush();
    }

    /// Ends the sessions that are meant, and gives their number.
    int end(std::int64_t realm, Selector selector, std::string_view value) {
        if (selector == Selector::kUser) {
            const int count = firstOf(Query(m_statements.countOfUser, realm, value));
            if (count > kRemoveAtOnce) {
                Query(m_statements.end, realm, value).step();
                return count;
            }
        }
        Query(selector == Selector::kUser ? m_statements.terminateByUser : m_statements.terminateById, realm, value)
            .step();
        return m_database.getChanges();
    }

    /// Runs a statement that takes the realm's number, the value and the rest.
    template <typename... Rest>
    std::optional<int> changeSessions(Selector selector, SQLite::Statement& statement, std::string_view realm,
                                      std::string_view value, const Rest&... rest) {
        const LargeCache cache(m_database, selector);
        Transaction transaction(m_connection, Transaction::Kind::kWrite);
        const auto number = realmNumber(realm);
        if (!number) {
            return std::nullopt;
        }
        Query(statement, *number, value, rest...).step();
        const int count = m_database.getChanges();
        transaction.commit();
        return count;
    }

    std::optional<std::int64_t> realmNumber(std::string_view name) {
        Query query(m_statements.realm, name);
        return query.step() ? std::optional(query.integer(0)) : std::nullopt;
    }

    std::optional<std::string> answerTo(const ChangeRecord& change) {
        Query query(m_statements.change, change.id);
        if (!query.step()) {
            return std::nullopt;
        }
        checkSameChange(change, query.text(0), query.text(1));
        return std::string(query.text(2));
    }

    Key currentKey() {
        Key key;
        Query query(m_statements.keys);
        if (query.step()) {
            key.label = query.text(0);
            key.time = query.integer32(1);
            key.previousTime = query.step() ? query.integer32(1) : 0;
        }
        return key;
    }

    /// Changes with every change of the file, by others and through this store (https://sqlite.org/pragma.html).
    std::pair<std::int64_t, int> version() {
        Query query(m_statements.version);
        query.step();
        return {query.integer(0), m_database.getTotalChanges()};
    }

    Connection m_connection;
    SQLite::Database& m_database = m_connection.database;
    const std::int64_t m_pageBytes;
    Statements m_statements;
    const std::string m_clusterId;
    ChangeAges m_ages;
    std::function<bool()> m_impatient;
    ClusterState m_cluster;
    std::pair<std::int64_t, int> m_clusterVersion{-1, -1};
    Administrator m_administrator;
    std::pair<std::int64_t, int> m_administratorVersion{-1, -1};
};

std::unique_ptr<Store> connect(const std::shared_ptr<SqliteFiles>& files, std::string clusterId) {
    const std::string& path = files->path();
    const auto unusable = [&](const Failure& error) { return path + " cannot be used: " + error.what(); };
    try {
        Connection connection{sqlite([&] {
                                  return SQLite::Database(
                                      path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE,
                                      kBusyMilliseconds);
                              }),
                              files};
        SQLite::Database& database = connection.database;
        execute(database,
                "PRAGMA foreign_keys=ON; PRAGMA synchronous=FULL; PRAGMA trusted_schema=OFF; "
                "PRAGMA journal_size_limit=33554432");
        establishSchema(connection);
        execute(database, "PRAGMA journal_mode=WAL");  // it writes, so only once the file is known to be ours
        files->check(database.getHandle());
        return sqlite([&] { return std::make_unique<SqliteStore>(std::move(connection), std::move(clusterId)); });
    } catch (const SqliteError& error) {
        throw Failure(error.code() == SQLITE_NOTADB ? path + " is not a data file of dsessd" : unusable(error));
    } catch (const Failure& failure) {
        if (failure.reason() != Reason::kUnavailable) {
            throw;
        }
        throw Failure(Reason::kUnavailable, unusable(failure));
    }
}

}  // namespace

std::unique_ptr<Store> openSqliteStore(const std::string& path, Store::IfMissing ifMissing) {
    if (ifMissing == Store::IfMissing::kCreate) {
        createPrivateFile(path);
    } else if (::access(path.c_str(), F_OK) != 0) {
        throw Failure("there is no data file " + path + "; 'dsessd load' makes one");
    }
    return connect(std::make_shared<SqliteFiles>(path), {});
}

}  // namespace dsessd
