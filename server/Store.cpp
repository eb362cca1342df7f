#include "server/Store.h"

#include <fcntl.h>
#include <openssl/rand.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <limits>

#include "runtime/QelFileDescriptor.h"

namespace dsessd {

namespace {

constexpr int kApplicationId = 0x44534553;  // "DSES", tells our files from other SQLite files
constexpr int kSchemaVersion = 1;
constexpr int kDefaultTraceLevel = 1;
constexpr std::size_t kIdleStores = 8;

// References are checked when a transaction ends, so that a load may store the parts before the whole.
constexpr char kSchema[] = R"(
CREATE TABLE realms (
    number INTEGER PRIMARY KEY,
    name TEXT NOT NULL UNIQUE
) STRICT;
CREATE TABLE replica_sets (
    number INTEGER PRIMARY KEY,
    realm INTEGER NOT NULL REFERENCES realms DEFERRABLE INITIALLY DEFERRED,
    name TEXT NOT NULL UNIQUE
) STRICT;
CREATE INDEX replica_sets_by_realm ON replica_sets (realm, number);
CREATE TABLE members (
    number INTEGER PRIMARY KEY,
    replica_set INTEGER NOT NULL REFERENCES replica_sets DEFERRABLE INITIALLY DEFERRED,
    name TEXT NOT NULL,
    last_contact INTEGER NOT NULL,
    UNIQUE (replica_set, name)
) STRICT;
CREATE TABLE sessions (
    realm INTEGER NOT NULL REFERENCES realms DEFERRABLE INITIALLY DEFERRED,
    id TEXT NOT NULL,
    user TEXT NOT NULL,
    time INTEGER NOT NULL,
    PRIMARY KEY (realm, id)
) STRICT, WITHOUT ROWID;
CREATE INDEX sessions_by_user ON sessions (realm, user, time, id);
CREATE TABLE keys (
    number INTEGER PRIMARY KEY,
    label TEXT NOT NULL UNIQUE,
    time INTEGER NOT NULL
) STRICT;
CREATE TABLE settings (
    name TEXT PRIMARY KEY,
    value INTEGER NOT NULL
) STRICT, WITHOUT ROWID;
CREATE TABLE administrators (
    name TEXT PRIMARY KEY,
    password_hash TEXT NOT NULL,
    role TEXT NOT NULL CHECK (role IN ('read', 'change'))
) STRICT, WITHOUT ROWID;
)";

std::string newKeyLabel(Seconds now) {
    std::array<unsigned char, 8> random{};
    if (RAND_bytes(random.data(), static_cast<int>(random.size())) != 1) {
        throw StoreError("no random bytes for a key's label");
    }
    const std::time_t seconds = now;
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    std::array<char, 48> label{};
    std::size_t length = std::strftime(label.data(), label.size(), "key-%Y-%m-%d-", &utc);
    for (const unsigned char byte : random) {
        std::snprintf(label.data() + length, label.size() - length, "%02x", byte);
        length += 2;
    }
    return label.data();
}

/// Runs an insertion; false when it breaks a uniqueness rule.
bool inserted(Query query) {
    try {
        query.step();
        return true;
    } catch (const SqliteError& error) {
        if (error.code() == SQLITE_CONSTRAINT) {
            return false;
        }
        throw;
    }
}

void insertKey(Database& database, Seconds now) {
    const Statement statement(database, "INSERT INTO keys (label, time) VALUES (?, ?)");
    const std::string label = newKeyLabel(now);
    Query(statement, std::string_view(label), std::int64_t{now}).step();
}

void createSchema(Database& database) {
    database.execute(kSchema);
    insertKey(database, presentTime());
    database.execute(("PRAGMA application_id=" + std::to_string(kApplicationId)).c_str());
    database.execute(("PRAGMA user_version=" + std::to_string(kSchemaVersion)).c_str());
}

/// Makes the schema in a new file; throws unless the file is ours and of this version.
void establishSchema(Database& database, const std::string& path) {
    const auto isEmpty = [&] {
        return database.queryInteger("PRAGMA application_id") == 0 &&
               database.queryInteger("SELECT count(*) FROM sqlite_schema") == 0;
    };
    if (isEmpty()) {
        Transaction transaction(database, Transaction::Kind::kWrite);
        if (isEmpty()) {
            createSchema(database);
        }
        transaction.commit();
    }
    if (database.queryInteger("PRAGMA application_id") != kApplicationId) {
        throw StoreError(path + " is not a data file of dsessd");
    }
    const std::int64_t version = database.queryInteger("PRAGMA user_version");
    if (version != kSchemaVersion) {
        throw StoreError(path + " has schema version " + std::to_string(version) + "; this dsessd knows version " +
                         std::to_string(kSchemaVersion));
    }
}

/// SQLite would make a file that others may read.
void createPrivateFile(const std::string& path) {
    const QelFileDescriptor file(::open(path.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (!file.isOpen()) {
        throw StoreError(path + " cannot be made: " + std::strerror(errno));
    }
}

}  // namespace

const char* nameOf(Role role) {
    return role == Role::kChange ? "change" : "read";
}

Seconds presentTime() {
    using namespace std::chrono;
    const auto now = duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
    return static_cast<Seconds>(std::min<std::int64_t>(now, std::numeric_limits<Seconds>::max()));
}

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

struct Store::Statements {
    explicit Statements(const Database& db)
        : realms(db, "SELECT number, name FROM realms ORDER BY number"),
          realm(db, "SELECT number FROM realms WHERE name = ?"),
          replicaSets(db, "SELECT name FROM replica_sets WHERE realm = ? ORDER BY number"),
          replicaSet(db, "SELECT number FROM replica_sets WHERE name = ?"),
          members(db, "SELECT name, last_contact FROM members WHERE replica_set = ? ORDER BY number"),
          keys(db, "SELECT label, time FROM keys ORDER BY number DESC LIMIT 2"),
          countByUser(db, "SELECT count(*) FROM sessions WHERE realm = ? AND user GLOB ?"),
          countById(db, "SELECT count(*) FROM sessions WHERE realm = ? AND id GLOB ?"),
          listByUser(db,
                     "SELECT id, user, time FROM sessions WHERE realm = ? AND user GLOB ? "
                     "ORDER BY user, time, id LIMIT ?"),
          listById(db,
                   "SELECT id, user, time FROM sessions WHERE realm = ? AND id GLOB ? "
                   "ORDER BY user, time, id LIMIT ?"),
          terminateByUser(db, "DELETE FROM sessions WHERE realm = ? AND user = ?"),
          terminateById(db, "DELETE FROM sessions WHERE realm = ? AND id = ?"),
          refreshByUser(db, "UPDATE sessions SET time = ? WHERE realm = ? AND user = ?"),
          refreshById(db, "UPDATE sessions SET time = ? WHERE realm = ? AND id = ?"),
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
          addKey(db, "INSERT INTO keys (label, time) VALUES (?, ?)") {}

    Statement realms, realm, replicaSets, replicaSet, members, keys;
    Statement countByUser, countById, listByUser, listById;
    Statement terminateByUser, terminateById, refreshByUser, refreshById;
    Statement setting, putSetting;
    Statement administrator, administrators, putAdministrator, removeAdministrator;
    Statement addRealm, addReplicaSet, addMember, addSession, addKey;
};

Store::Store(Database database)
    : m_database(std::move(database)), m_statements(std::make_unique<Statements>(m_database)) {}

Store::~Store() = default;

std::unique_ptr<Store> Store::open(const std::string& path, IfMissing ifMissing) {
    if (ifMissing == IfMissing::kCreate) {
        createPrivateFile(path);
    } else if (::access(path.c_str(), F_OK) != 0) {
        throw StoreError("there is no data file " + path + "; 'dsessd load' makes one");
    }
    try {
        Database database(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE);
        sqlite3_busy_timeout(database.handle(), 10'000);
        database.execute("PRAGMA foreign_keys=ON; PRAGMA synchronous=FULL; PRAGMA trusted_schema=OFF");
        establishSchema(database, path);
        database.execute("PRAGMA journal_mode=WAL");
        return std::unique_ptr<Store>(new Store(std::move(database)));
    } catch (const SqliteError& error) {
        if (error.code() == SQLITE_NOTADB) {
            throw StoreError(path + " is not a data file of dsessd");
        }
        throw StoreError(path + " cannot be used: " + error.what());
    }
}

std::optional<std::int64_t> Store::realmNumber(std::string_view name) {
    Query query(m_statements->realm, name);
    return query.step() ? std::optional(query.integer(0)) : std::nullopt;
}

ClusterState Store::cluster() {
    Transaction transaction(m_database, Transaction::Kind::kRead);
    ClusterState state;
    Query realms(m_statements->realms);
    while (realms.step()) {
        Realm& realm = state.realms.emplace_back();
        realm.name = realms.text(1);
        Query sets(m_statements->replicaSets, realms.integer(0));
        while (sets.step()) {
            realm.replicaSets.emplace_back(sets.text(0));
        }
    }
    state.key = currentKey();
    return state;
}

Key Store::currentKey() {
    Key key;
    Query query(m_statements->keys);
    if (query.step()) {
        key.label = query.text(0);
        key.time = query.integer32(1);
    }
    if (query.step()) {
        key.previousTime = query.integer32(1);
    }
    return key;
}

std::optional<std::vector<Member>> Store::members(std::string_view replicaSet) {
    Transaction transaction(m_database, Transaction::Kind::kRead);
    Query set(m_statements->replicaSet, replicaSet);
    if (!set.step()) {
        return std::nullopt;
    }
    std::vector<Member> members;
    Query query(m_statements->members, set.integer(0));
    while (query.step()) {
        members.push_back({std::string(query.text(0)), query.integer32(1)});
    }
    return members;
}

Store::SessionListing::SessionListing(Store& store, std::int64_t realm, Selector selector, std::string_view pattern,
                                      std::int32_t max)
    : m_transaction(store.m_database, Transaction::Kind::kRead), m_glob(globOf(pattern)) {
    const Statements& statements = *store.m_statements;
    const bool byUser = selector == Selector::kUser;
    Query counting(byUser ? statements.countByUser : statements.countById, realm, std::string_view(m_glob));
    counting.step();
    m_total = counting.integer32(0);
    m_count = max < 0 ? m_total : std::min(m_total, max);
    m_rows.emplace(byUser ? statements.listByUser : statements.listById, realm, std::string_view(m_glob),
                   std::int64_t{m_count});
}

Store::SessionListing::~SessionListing() = default;

bool Store::SessionListing::next(SessionRow& row) {
    if (!m_rows->step()) {
        return false;
    }
    row = {m_rows->text(0), m_rows->text(1), m_rows->integer32(2)};
    return true;
}

std::unique_ptr<Store::SessionListing> Store::listSessions(std::string_view realm, Selector selector,
                                                           std::string_view pattern, std::int32_t max) {
    const auto number = realmNumber(realm);
    if (!number) {
        return nullptr;
    }
    return std::unique_ptr<SessionListing>(new SessionListing(*this, *number, selector, pattern, max));
}

std::optional<int> Store::terminateSessions(std::string_view realm, Selector selector, std::string_view value) {
    Transaction transaction(m_database, Transaction::Kind::kWrite);
    const auto number = realmNumber(realm);
    if (!number) {
        return std::nullopt;
    }
    Query(selector == Selector::kUser ? m_statements->terminateByUser : m_statements->terminateById, *number, value)
        .step();
    const int count = m_database.changes();
    transaction.commit();
    return count;
}

std::optional<int> Store::refreshSessions(std::string_view realm, Selector selector, std::string_view value,
                                          Seconds now) {
    Transaction transaction(m_database, Transaction::Kind::kWrite);
    const auto number = realmNumber(realm);
    if (!number) {
        return std::nullopt;
    }
    Query(selector == Selector::kUser ? m_statements->refreshByUser : m_statements->refreshById, std::int64_t{now},
          *number, value)
        .step();
    const int count = m_database.changes();
    transaction.commit();
    return count;
}

Key Store::changeKey(Seconds now) {
    Transaction transaction(m_database, Transaction::Kind::kWrite);
    insertKey(m_database, now);
    Key key = currentKey();
    transaction.commit();
    return key;
}

int Store::traceLevel() {
    Query query(m_statements->setting, std::string_view("trace level"));
    return query.step() ? query.integer32(0) : kDefaultTraceLevel;
}

void Store::setTraceLevel(int level) {
    Query(m_statements->putSetting, std::string_view("trace level"), std::int64_t{level}).step();
}

namespace {

Administrator administratorOf(const Query& row) {
    return {std::string(row.text(0)), std::string(row.text(1)),
            row.text(2) == nameOf(Role::kChange) ? Role::kChange : Role::kRead};
}

}  // namespace

std::optional<Administrator> Store::administrator(std::string_view name) {
    Query query(m_statements->administrator, name);
    return query.step() ? std::optional(administratorOf(query)) : std::nullopt;
}

std::vector<Administrator> Store::administrators() {
    std::vector<Administrator> all;
    Query query(m_statements->administrators);
    while (query.step()) {
        all.push_back(administratorOf(query));
    }
    return all;
}

bool Store::putAdministrator(const Administrator& administrator) {
    Transaction transaction(m_database, Transaction::Kind::kWrite);
    const bool isNew = !this->administrator(administrator.name).has_value();
    Query(m_statements->putAdministrator, std::string_view(administrator.name),
          std::string_view(administrator.passwordHash), std::string_view(nameOf(administrator.role)))
        .step();
    transaction.commit();
    return isNew;
}

bool Store::removeAdministrator(std::string_view name) {
    Query(m_statements->removeAdministrator, name).step();
    return m_database.changes() > 0;
}

Store::Replacement::Replacement(Store& store)
    : m_store(store), m_transaction(store.m_database, Transaction::Kind::kWrite) {
    store.m_database.execute(
        "DELETE FROM sessions; DELETE FROM members; DELETE FROM replica_sets; DELETE FROM realms; DELETE FROM keys");
}

bool Store::Replacement::addRealm(std::int64_t number, std::string_view name) {
    return inserted(Query(m_store.m_statements->addRealm, number, name));
}

bool Store::Replacement::addReplicaSet(std::int64_t number, std::int64_t realm, std::string_view name) {
    return inserted(Query(m_store.m_statements->addReplicaSet, number, realm, name));
}

bool Store::Replacement::addMember(std::int64_t replicaSet, const Member& member) {
    return inserted(Query(m_store.m_statements->addMember, replicaSet, std::string_view(member.name),
                          std::int64_t{member.lastContact}));
}

bool Store::Replacement::addSession(std::int64_t realm, const SessionRow& session) {
    return inserted(
        Query(m_store.m_statements->addSession, realm, session.id, session.user, std::int64_t{session.time}));
}

bool Store::Replacement::addKey(std::string_view label, Seconds time) {
    return inserted(Query(m_store.m_statements->addKey, label, std::int64_t{time}));
}

void Store::Replacement::commit() {
    if (m_store.m_database.queryInteger("SELECT count(*) FROM keys") == 0) {
        insertKey(m_store.m_database, presentTime());
    }
    m_transaction.commit();
}

StorePool::Lease StorePool::take() {
    {
        const std::lock_guard lock(m_mutex);
        if (!m_idle.empty()) {
            Store* store = m_idle.back().release();
            m_idle.pop_back();
            return Lease(store, Returner{this});
        }
    }
    return Lease(Store::open(m_path, Store::IfMissing::kFail).release(), Returner{this});
}

void StorePool::giveBack(Store* store) {
    std::unique_ptr<Store> owned(store);
    const std::lock_guard lock(m_mutex);
    if (m_idle.size() < kIdleStores) {
        m_idle.push_back(std::move(owned));
    }
}

}  // namespace dsessd
