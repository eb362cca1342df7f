#include "server/store/SqliteSchema.h"

#include "server/store/StoreEngines.h"

namespace dsessd::embedded {

namespace {

constexpr int kApplicationId = 0x44534553;  // "DSES", tells our files from other SQLite files
// How long another process that holds the file is waited for: one that is about to end gets its time.
constexpr int kWaitToBeAlone = 1'000;

constexpr char kClusterTable[] = R"(
CREATE TABLE cluster (
    id TEXT PRIMARY KEY
) STRICT, WITHOUT ROWID;
)";
constexpr char kChangesTable[] = R"(
CREATE TABLE changes (
    id TEXT PRIMARY KEY,
    user TEXT NOT NULL,
    digest TEXT NOT NULL,
    answer TEXT NOT NULL,
    number INTEGER NOT NULL UNIQUE
) STRICT, WITHOUT ROWID;
)";
// Users whose sessions have ended while their rows are still there. The rows are removed later, in small steps: to
// remove a million at once would keep others from changing anything for minutes. Only a load adds sessions, and it
// empties this table.
constexpr char kEndedTable[] = R"(
CREATE TABLE ended (
    realm INTEGER,
    user TEXT,
    PRIMARY KEY (realm, user)
) STRICT, WITHOUT ROWID;
)";
// References are checked when a transaction ends, so that a load may store the parts before the whole. realms.sessions
// is how many sessions a realm has: to count them takes long where there are millions.
constexpr char kOtherTables[] = R"(
CREATE TABLE realms (
    number INTEGER PRIMARY KEY,
    name TEXT NOT NULL UNIQUE,
    sessions INTEGER NOT NULL DEFAULT 0
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

void makeCluster(SQLite::Database& database) {
    execute(database, kClusterTable);
    execute(database, ("INSERT INTO cluster (id) VALUES ('" + newUuid() + "')").c_str());
}

void createSchema(SQLite::Database& database) {
    makeCluster(database);
    execute(database, kChangesTable);
    execute(database, kEndedTable);
    execute(database, kOtherTables);
    makeSessionIndex(database);
    insertKey(database, presentTime());
    execute(database, ("PRAGMA application_id=" + std::to_string(kApplicationId)).c_str());
    setVersion(database);
}

}  // namespace

void makeSessionIndex(SQLite::Database& database) {
    execute(database, "CREATE INDEX sessions_by_user ON sessions (realm, user, time, id)");
}

void setVersion(SQLite::Database& database) {
    execute(database, ("PRAGMA user_version=" + std::to_string(kSchemaVersion)).c_str());
}

bool isOurs(SQLite::Database& database) {
    return queryInteger(database, "PRAGMA application_id") == kApplicationId;
}

// Prepares its own statement: it runs before all tables exist that the prepared ones need.
void insertKey(SQLite::Database& database, Seconds now) {
    SQLite::Statement statement =
        sqlite([&] { return SQLite::Statement(database, "INSERT INTO keys (label, time) VALUES (?, ?)"); });
    Query(statement, newKeyLabel(now), now).step();
}

void establishSchema(Connection& connection) {
    SQLite::Database& database = connection.database;
    const auto isEmpty = [&] {
        return queryInteger(database, "PRAGMA application_id") == 0 &&
               queryInteger(database, "SELECT count(*) FROM sqlite_schema") == 0;
    };
    if (isEmpty()) {
        Transaction transaction(connection, Transaction::Kind::kWrite);
        if (isEmpty()) {  // another process may have been faster
            createSchema(database);
        }
        transaction.commit();
    }
    const std::string& path = connection.files->path();
    if (const int version = versionOf(database, path); version != kSchemaVersion) {
        failForVersion(path, version, kSchemaVersion);
    }
}

int versionOf(SQLite::Database& database, const std::string& path) {
    if (!isOurs(database)) {
        throw Failure(path + " is not a data file of dsessd");
    }
    const std::int64_t version = queryInteger(database, "PRAGMA user_version");
    if (version < 1 || version > kSchemaVersion) {
        failForVersion(path, version, kSchemaVersion);
    }
    return static_cast<int>(version);
}

void raiseSchema(SQLite::Database& database, int from) {
    if (from == 1) {
        makeCluster(database);
        execute(database, kChangesTable);
    } else if (from == 2) {
        // Records of changes were ordered by the time of day, which is set now and then.
        execute(database,
                "CREATE TEMP TABLE kept AS SELECT id, user, digest, answer FROM changes ORDER BY time, id; "
                "DROP TABLE changes");
        execute(database, kChangesTable);
        execute(database, "INSERT INTO changes SELECT id, user, digest, answer, rowid FROM kept; DROP TABLE kept");
    }
    execute(database,
            "ALTER TABLE realms ADD COLUMN sessions INTEGER NOT NULL DEFAULT 0; "
            "UPDATE realms SET sessions = (SELECT count(*) FROM sessions WHERE realm = number)");
    execute(database, kEndedTable);
    setVersion(database);
}

SQLite::Database openAlone(const std::string& path) {
    const auto inUse = [&] {
        return Failure(Reason::kBusy, path + " is in use; stop each dsessd that has it open, and try again");
    };
    try {
        SQLite::Database database = sqlite([&] {
            return SQLite::Database(path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_EXRESCODE,
                                    kWaitToBeAlone);
        });
        const auto journal = [&](const char* sql) {
            return sqlite([&] { return database.execAndGet(sql).getString(); });
        };
        // A connection that has the log open keeps it from being taken away, as a node always does.
        journal("PRAGMA journal_mode=DELETE");
        execute(database, "BEGIN EXCLUSIVE");
        if (journal("PRAGMA journal_mode") != "delete") {
            throw inUse();
        }
        return database;
    } catch (const Failure& failure) {
        if (failure.reason() == Reason::kBusy) {
            throw inUse();
        }
        throw;
    }
}

}  // namespace dsessd::embedded
