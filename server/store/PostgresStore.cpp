/// The store in a PostgreSQL database: its schema and its statements.

#include <algorithm>
#include <array>
#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <thread>
#include <type_traits>
#include <utility>

#include "server/store/PostgresConnection.h"
#include "server/store/StoreEngines.h"

namespace dsessd {

namespace {

using Value = PostgresConnection::Value;
constexpr auto kMinutes = PostgresConnection::Takes::kMinutes;

constexpr int kSchemaVersion = 3;
// How often a transaction is tried that stands in another's way, and for how long it steps aside in between.
constexpr int kTries = 8;
constexpr std::chrono::milliseconds kStepAside{20};
// What was lost is done anew unless it took longer: whoever asks does not wait for ever.
constexpr std::chrono::seconds kAnewWithin{5};
// A failure that took longer than this is remembered for the other connections (Outage).
constexpr std::chrono::seconds kLong{1};
// Rows of a listing that are in memory at a time.
constexpr char kFetch[] = "FETCH 1000 FROM listing";

// All text is ordered by its bytes, whatever the database's own order is. References are checked when a transaction
// ends, so that a load may store the parts before the whole.
constexpr char kSchema[] = R"(
CREATE SCHEMA dsessd;
SET search_path = dsessd, pg_temp;
CREATE TABLE store (
    version integer NOT NULL,
    cluster_id text NOT NULL
);
CREATE TABLE realms (
    number bigint PRIMARY KEY,
    name text COLLATE "C" NOT NULL UNIQUE
);
CREATE TABLE replica_sets (
    number bigint PRIMARY KEY,
    realm bigint NOT NULL REFERENCES realms DEFERRABLE INITIALLY DEFERRED,
    name text COLLATE "C" NOT NULL UNIQUE
);
CREATE INDEX replica_sets_by_realm ON replica_sets (realm, number);
CREATE TABLE members (
    number bigint GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
    replica_set bigint NOT NULL REFERENCES replica_sets DEFERRABLE INITIALLY DEFERRED,
    name text COLLATE "C" NOT NULL,
    last_contact integer NOT NULL,
    UNIQUE (replica_set, name)
);
CREATE TABLE sessions (
    realm bigint NOT NULL REFERENCES realms DEFERRABLE INITIALLY DEFERRED,
    id text COLLATE "C" NOT NULL,
    user_name text COLLATE "C" NOT NULL,
    time integer NOT NULL,
    PRIMARY KEY (realm, id)
);
CREATE INDEX sessions_by_user ON sessions (realm, user_name, time, id);
CREATE TABLE keys (
    number bigint GENERATED ALWAYS AS IDENTITY PRIMARY KEY,
    label text COLLATE "C" NOT NULL UNIQUE,
    time integer NOT NULL
);
CREATE TABLE settings (
    name text COLLATE "C" PRIMARY KEY,
    value integer NOT NULL
);
CREATE TABLE administrators (
    name text COLLATE "C" PRIMARY KEY,
    password_hash text NOT NULL,
    role text NOT NULL CHECK (role IN ('read', 'change'))
);
)";
constexpr char kChangesTable[] = R"(
CREATE TABLE changes (
    id text COLLATE "C" PRIMARY KEY,
    user_name text NOT NULL,
    digest text NOT NULL,
    answer text NOT NULL,
    number bigint GENERATED ALWAYS AS IDENTITY UNIQUE
);
)";
// How many sessions a realm has, as the sum of its slots: to count them takes long where there are millions. Changes
// that are made at a time seldom have the same slot, or each would wait for the commit of the one before.
constexpr char kCountsTable[] = R"(
CREATE TABLE session_counts (
    realm bigint REFERENCES realms,
    slot integer,
    sessions bigint NOT NULL,
    PRIMARY KEY (realm, slot)
);
)";
constexpr char kAddToCount[] =
    "INSERT INTO session_counts VALUES ($1, pg_backend_pid() % 64, $2) "
    "ON CONFLICT (realm, slot) DO UPDATE SET sessions = session_counts.sessions + excluded.sessions";
// Of version 1, where records of changes were ordered by the time of day, which is set now and then.
constexpr char kKeepChanges1[] = "CREATE TEMP TABLE kept ON COMMIT DROP AS SELECT * FROM changes; DROP TABLE changes";
constexpr char kPutChanges1[] =
    "INSERT INTO changes (id, user_name, digest, answer) SELECT id, user_name, digest, answer FROM pg_temp.kept "
    "ORDER BY time, id";
constexpr char kRaise[] =
    "INSERT INTO session_counts SELECT realm, 0, count(*) FROM sessions GROUP BY realm; UPDATE store SET version = 3";
// Connections of dsessd are known by the name that they give themselves. A node whose URI sets another
// application_name is not counted.
constexpr char kOtherNodes[] =
    "SELECT count(*) FROM pg_stat_activity WHERE datname = current_database() AND application_name = 'dsessd' "
    "AND pid <> pg_backend_pid()";

constexpr char kTotal[] = "SELECT coalesce(sum(sessions), 0) FROM session_counts WHERE realm = $1";
constexpr char kCluster[] = "SELECT cluster_id, version FROM store";
constexpr char kTraceLevel[] = "SELECT value FROM settings WHERE name = 'trace level'";
constexpr char kPutTraceLevel[] =
    "INSERT INTO settings (name, value) VALUES ('trace level', $1) "
    "ON CONFLICT (name) DO UPDATE SET value = excluded.value";

constexpr char kBeginReading[] = "BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY";
// A change and a load wait for each other: after a load, the number of a realm may mean another realm.
constexpr char kBeginChange[] =
    "BEGIN ISOLATION LEVEL READ COMMITTED READ WRITE; LOCK TABLE realms IN ROW EXCLUSIVE MODE; "
    "SELECT cluster_id, version FROM store";
constexpr char kBeginLoad[] = "BEGIN ISOLATION LEVEL READ COMMITTED READ WRITE; LOCK TABLE realms IN EXCLUSIVE MODE";

/// A pattern of `*` and `?` as LIKE takes it.
std::string likeOf(std::string_view pattern) {
    std::string like;
    for (const char c : pattern) {
        if (c == '?') {
            like += '_';
        } else if (c == '*') {
            like += like.ends_with('%') && !like.ends_with("\\%") ? "" : "%";
        } else {
            like += c == '%' || c == '_' || c == '\\' ? "\\" : "";
            like += c;
        }
    }
    return like;
}

bool has(PostgresConnection& connection, const std::string& expression) {
    return connection.run(("SELECT " + expression + " IS NOT NULL").c_str()).text(0, 0) == "t";
}

/// The version of the store in the database, which is this one or an older one. Throws when it is neither.
int versionOf(PostgresConnection& connection, const std::string& name) {
    if (!has(connection, "to_regnamespace('dsessd')")) {
        throw Failure("there is no cluster in " + name + "; 'dsessd load' makes one");
    }
    if (!has(connection, "to_regclass('dsessd.store')")) {
        throw Failure("the schema dsessd in " + name + " is not one of dsessd");
    }
    const PostgresRows rows = connection.run("SELECT version FROM store");
    const std::int64_t version = rows.size() == 1 ? rows.integer(0, 0) : 0;
    if (version < 1 || version > kSchemaVersion) {
        failForVersion(name, version, kSchemaVersion);
    }
    return static_cast<int>(version);
}

/// Elements of an array as PostgreSQL writes one.
class Array {
  public:
    void add(std::string_view element) {
        m_text += m_text.empty() ? "{\"" : ",\"";
        for (const char c : element) {
            m_text += c == '"' || c == '\\' ? "\\" : "";
            m_text += c;
        }
        m_text += '"';
    }
    Value value() const { return Value::written(m_text.empty() ? "{}" : m_text + "}"); }

  private:
    std::string m_text;
};

std::optional<std::int64_t> realmNumber(PostgresConnection& connection, std::string_view name) {
    const PostgresRows rows = connection.run("SELECT number FROM realms WHERE name = $1", {sought(name)});
    return rows.size() == 1 ? std::optional(rows.integer(0, 0)) : std::nullopt;
}

void insertKey(PostgresConnection& connection, Seconds now) {
    connection.run("INSERT INTO keys (label, time) VALUES ($1, $2)", {newKeyLabel(now), now});
}

Administrator administratorOf(const PostgresRows& rows, int row) {
    return {std::string(rows.text(row, 0)), std::string(rows.text(row, 1)),
            rows.text(row, 2) == nameOf(Role::kChange) ? Role::kChange : Role::kRead};
}

class Listing final : public Store::SessionListing {
  public:
    explicit Listing(PostgresConnection& connection)
        : m_connection(connection), m_transaction(connection, kBeginReading) {}

    void start(std::int64_t realm, Selector selector, const std::string& like, std::int32_t max) {
        const std::string where = std::string(" FROM sessions WHERE realm = $1 AND ") +
                                  (selector == Selector::kUser ? "user_name" : "id") + " LIKE $2";
        m_total = (like == "%" ? m_connection.run(kTotal, {realm})
                               : m_connection.run(("SELECT count(*)" + where).c_str(), {realm, like}))
                      .integer32(0, 0);
        m_count = max < 0 ? m_total : std::min(m_total, max);
        std::string rows = "SELECT id, user_name, time" + where;
        if (selector == Selector::kSession && m_total < kFewSessions) {
            rows = "WITH few AS MATERIALIZED (" + rows + ") SELECT * FROM few";
        }
        m_connection.run(("DECLARE listing NO SCROLL CURSOR FOR " + rows + " ORDER BY user_name, time, id LIMIT " +
                          std::to_string(m_count))
                             .c_str(),
                         {realm, like});
    }
    std::int32_t total() const override { return m_total; }
    std::int32_t count() const override { return m_count; }
    bool next(SessionRow& row) override {
        if (m_at == m_rows.size()) {
            m_rows = m_connection.run(kFetch);
            m_at = 0;
        }
        if (m_rows.size() == 0) {
            return false;
        }
        row = {m_rows.text(m_at, 0), m_rows.text(m_at, 1), m_rows.integer32(m_at, 2)};
        ++m_at;
        return true;
    }

  private:
    PostgresConnection& m_connection;
    PostgresTransaction m_transaction;
    std::int32_t m_total = 0;
    std::int32_t m_count = 0;
    PostgresRows m_rows{nullptr};
    int m_at = 0;
};

/// A load may read its input slowly, and what it does is as long as the input.
class AnyTime {
  public:
    explicit AnyTime(PostgresConnection& connection) : m_connection(connection) { connection.takeAnyTime(true); }
    AnyTime(const AnyTime&) = delete;
    AnyTime& operator=(const AnyTime&) = delete;
    ~AnyTime() { m_connection.takeAnyTime(false); }

  private:
    PostgresConnection& m_connection;
};

class Replacing final : public Store::Replacement {
  public:
    explicit Replacing(PostgresConnection& connection)
        : m_connection(connection), m_anyTime(connection), m_transaction(connection, kBeginLoad) {
        connection.run(PostgresConnection::kLetTakeAnyTime);
        connection.run(
            "DELETE FROM session_counts; DELETE FROM sessions; DELETE FROM members; DELETE FROM replica_sets; "
            "DELETE FROM realms; DELETE FROM keys");
    }

    void setCluster(std::string_view id, std::optional<int> traceLevel) override {
        if (!id.empty()) {
            m_connection.run("UPDATE store SET cluster_id = $1", {id});
        }
        if (traceLevel) {
            m_connection.run(kPutTraceLevel, {*traceLevel});
        }
    }
    void clearAdministrators() override { m_connection.run("DELETE FROM administrators"); }
    bool addAdministrator(const Administrator& administrator) override {
        return insert(
            "INSERT INTO administrators (name, password_hash, role) VALUES ($1, $2, $3) ON CONFLICT DO NOTHING",
            {administrator.name, administrator.passwordHash, nameOf(administrator.role)});
    }
    void addChange(const ChangeRecord& change, std::string_view answer) override {
        insert("INSERT INTO changes (id, user_name, digest, answer) VALUES ($1, $2, $3, $4) ON CONFLICT DO NOTHING",
               {change.id, change.user, change.digest, answer});
    }
    bool addRealm(std::int64_t number, std::string_view name) override {
        return insert("INSERT INTO realms (number, name) VALUES ($1, $2) ON CONFLICT DO NOTHING", {number, name});
    }
    bool addReplicaSet(std::int64_t number, std::int64_t realm, std::string_view name) override {
        return insert("INSERT INTO replica_sets (number, realm, name) VALUES ($1, $2, $3) ON CONFLICT DO NOTHING",
                      {number, realm, name});
    }
    bool addMember(std::int64_t replicaSet, const Member& member) override {
        return insert(
            "INSERT INTO members (replica_set, name, last_contact) VALUES ($1, $2, $3) ON CONFLICT DO NOTHING",
            {replicaSet, member.name, member.lastContact});
    }
    std::optional<std::size_t> addSessions(const std::vector<NewSession>& sessions) override {
        m_connection.run("SAVEPOINT sessions");
        if (insert(sessions.data(), sessions.size())) {
            m_connection.run("RELEASE sessions");
            for (const NewSession& session : sessions) {
                ++m_counts[session.realm];
            }
            return std::nullopt;
        }
        m_connection.run("ROLLBACK TO sessions");
        std::size_t place = 0;
        while (insert(&sessions[place], 1)) {
            ++place;
        }
        return place;
    }
    bool addKey(std::string_view label, Seconds time) override {
        return insert("INSERT INTO keys (label, time) VALUES ($1, $2) ON CONFLICT DO NOTHING", {label, time});
    }
    void commit() override {
        if (m_connection.run("SELECT count(*) FROM keys").integer(0, 0) == 0) {
            insertKey(m_connection, presentTime());
        }
        for (const auto& [realm, count] : m_counts) {
            m_connection.run(kAddToCount, {realm, count});
        }
        m_connection.run("SET CONSTRAINTS ALL IMMEDIATE");  // checks now: a commit must neither take long nor fail
        m_transaction.commit();
    }

  private:
    /// False: not all of them are new.
    bool insert(const NewSession* sessions, std::size_t count) {
        Array realms, ids, users, times;
        for (const NewSession* session = sessions; session != sessions + count; ++session) {
            realms.add(std::to_string(session->realm));
            ids.add(session->id);
            users.add(session->user);
            times.add(std::to_string(session->time));
        }
        return static_cast<std::size_t>(
                   m_connection
                       .run("INSERT INTO sessions (realm, id, user_name, time) "
                            "SELECT * FROM unnest($1::bigint[], $2::text[], $3::text[], $4::integer[]) "
                            "ON CONFLICT DO NOTHING",
                            {realms.value(), ids.value(), users.value(), times.value()})
                       .changed()) == count;
    }

    bool insert(const char* sql, std::initializer_list<Value> values) {
        return m_connection.run(sql, values).changed() == 1;
    }

    PostgresConnection& m_connection;
    AnyTime m_anyTime;
    PostgresTransaction m_transaction;
    /// How many sessions each realm has got.
    std::map<std::int64_t, std::int64_t> m_counts;
};

/// What a connection has waited for in vain, for all connections of a node: requests that come a moment later are told
/// so at once, and do not wait in their turn for as long.
class Outage {
  public:
    enum Of { kConnecting, kAnything, kChanges };

    void begin(Of what, const std::string& why) {
        const MutexLock lock(m_mutex);
        m_known[what] = {std::chrono::steady_clock::now() + kHolds, why};
    }
    /// Throws Reason::kUnavailable.
    void check(Of what) {
        const MutexLock lock(m_mutex);
        if (std::chrono::steady_clock::now() < m_known[what].until) {
            throw Failure(Reason::kUnavailable, m_known[what].why);
        }
    }

  private:
    static constexpr std::chrono::milliseconds kHolds{200};
    struct Known {
        std::chrono::steady_clock::time_point until;
        std::string why;
    };
    Mutex m_mutex;
    std::array<Known, 3> m_known GUARDED_BY(m_mutex);
};

class PostgresStore final : public Store {
  public:
    /// `clusterId`: of the only cluster that will do; empty: the first that is found.
    PostgresStore(const std::string& uri, IfMissing ifMissing, Say say, std::shared_ptr<Outage> outage,
                  std::string clusterId = {})
        : m_uri(uri),
          m_name(nameOfPostgres(uri)),
          m_say(std::move(say)),
          m_outage(std::move(outage)),
          m_connection(uri, m_say),
          m_clusterId(std::move(clusterId)) {
        connect(ifMissing);
    }

    std::unique_ptr<Store> another() const override {
        return std::make_unique<PostgresStore>(m_uri, IfMissing::kFail, m_say, m_outage, m_clusterId);
    }
    void rest() override { m_connection.close(); }
    void beReliable() override {}  // nothing to check: PostgreSQL shows only what is committed
    void tryWriting() override {
        transaction(kBeginChange, [&] { return m_connection.run("UPDATE store SET version = version").changed(); });
    }

    void endWhen(std::function<bool()> impatient) override { m_connection.endWhen(std::move(impatient)); }

    std::string clusterId() override { return m_clusterId; }

    ClusterState cluster() override {
        return transaction(kBeginReading, [&] {
            ClusterState state;
            const PostgresRows rows = m_connection.run(
                "SELECT r.number, r.name, s.name FROM realms r LEFT JOIN replica_sets s ON s.realm = r.number "
                "ORDER BY r.number, s.number");
            for (int row = 0; row < rows.size(); ++row) {
                if (row == 0 || rows.integer(row, 0) != rows.integer(row - 1, 0)) {
                    state.realms.push_back({std::string(rows.text(row, 1)), {}});
                }
                if (!rows.isNull(row, 2)) {
                    state.realms.back().replicaSets.emplace_back(rows.text(row, 2));
                }
            }
            state.key = currentKey();
            return state;
        });
    }

    std::optional<std::vector<Member>> members(std::string_view replicaSet) override {
        const PostgresRows rows = statement(
            "SELECT m.name, m.last_contact FROM replica_sets s LEFT JOIN members m ON m.replica_set = s.number "
            "WHERE s.name = $1 ORDER BY m.number",
            {sought(replicaSet)});
        if (rows.size() == 0) {
            return std::nullopt;
        }
        std::vector<Member> members;
        for (int row = 0; row < rows.size() && !rows.isNull(row, 0); ++row) {
            members.push_back({std::string(rows.text(row, 0)), rows.integer32(row, 1)});
        }
        return members;
    }

    std::unique_ptr<SessionListing> listSessions(std::string_view realm, Selector selector, std::string_view pattern,
                                                 std::int32_t max) override {
        return retrying([&]() -> std::unique_ptr<SessionListing> {
            auto listing = std::make_unique<Listing>(m_connection);
            const auto number = realmNumber(m_connection, realm);
            if (!number) {
                return nullptr;
            }
            listing->start(*number, selector, likeOf(sought(pattern)), max);
            return listing;
        });
    }

    std::optional<int> terminateSessions(std::string_view realm, Selector selector, std::string_view value) override {
        return changeSessions(selector == Selector::kUser ? "DELETE FROM sessions WHERE realm = $1 AND user_name = $2"
                                                          : "DELETE FROM sessions WHERE realm = $1 AND id = $2",
                              realm, value, true);
    }

    std::optional<int> refreshSessions(std::string_view realm, Selector selector, std::string_view value,
                                       Seconds now) override {
        const std::string sql = "UPDATE sessions SET time = " + std::to_string(now) + " WHERE realm = $1 AND ";
        return changeSessions((sql + (selector == Selector::kUser ? "user_name = $2" : "id = $2")).c_str(), realm,
                              value, false);
    }

    Key changeKey(Seconds now) override {
        return transaction(kBeginChange, [&] {
            m_connection.run("LOCK TABLE keys IN EXCLUSIVE MODE");  // two that change it have an order
            insertKey(m_connection, now);
            return currentKey();
        });
    }

    std::string once(const ChangeRecord& change, const std::function<std::string()>& action) override {
        const auto start = std::chrono::steady_clock::now();
        const auto attempt = [&] {
            return transaction(kBeginChange, [&] {
                const InChange inside(m_inChange);
                return change.id.empty() ? action() : recorded(change, action);
            });
        };
        try {
            return attempt();
        } catch (const Failure& failure) {
            if (failure.reason() != Reason::kUncertain || change.id.empty() ||
                std::chrono::steady_clock::now() - start > kAnewWithin) {
                throw;
            }
        }
        try {
            return attempt();
        } catch (const Failure& error) {
            throw Failure(Reason::kUncertain,
                          std::string("it is not known whether the change was made: ") + error.what());
        }
    }

    std::vector<LocalAct> localActs() override {
        std::vector<LocalAct> acts;
        const PostgresRows rows =
            statement("SELECT id, answer FROM changes WHERE id >= $1 AND id < $2 AND user_name = '' ORDER BY number",
                      {kLocalActs.front(), kLocalActs.back()});
        acts.reserve(static_cast<std::size_t>(rows.size()));
        for (int row = 0; row < rows.size(); ++row) {
            acts.push_back({std::string(rows.text(row, 0)), std::string(rows.text(row, 1))});
        }
        return acts;
    }

    bool contact(std::string_view replicaSet, const Member& member) override {
        return transaction(kBeginChange, [&] {
            return m_connection
                       .run(
                           "INSERT INTO members (replica_set, name, last_contact) "
                           "SELECT number, $2, $3 FROM replica_sets WHERE name = $1 "
                           "ON CONFLICT (replica_set, name) DO UPDATE SET last_contact = excluded.last_contact",
                           {sought(replicaSet), member.name, member.lastContact})
                       .changed() == 1;
        });
    }

    int traceLevel() override { return levelIn(statement(kTraceLevel)); }

    void setTraceLevel(int level) override {
        transaction(kBeginChange, [&] { return m_connection.run(kPutTraceLevel, {level}).changed(); });
    }

    std::optional<Administrator> administrator(std::string_view name) override {
        const PostgresRows rows =
            statement("SELECT name, password_hash, role FROM administrators WHERE name = $1", {sought(name)});
        return rows.size() == 1 ? std::optional(administratorOf(rows, 0)) : std::nullopt;
    }

    std::vector<Administrator> administrators() override {
        std::vector<Administrator> all;
        const PostgresRows rows = statement("SELECT name, password_hash, role FROM administrators ORDER BY name");
        all.reserve(static_cast<std::size_t>(rows.size()));
        for (int row = 0; row < rows.size(); ++row) {
            all.push_back(administratorOf(rows, row));
        }
        return all;
    }

    bool putAdministrator(const Administrator& administrator) override {
        return transaction(kBeginChange, [&] {
            // Only a row that has replaced another one has a transaction in xmax.
            return m_connection
                       .run(
                           "INSERT INTO administrators (name, password_hash, role) VALUES ($1, $2, $3) "
                           "ON CONFLICT (name) DO UPDATE SET password_hash = excluded.password_hash, "
                           "role = excluded.role RETURNING xmax = 0",
                           {administrator.name, administrator.passwordHash, nameOf(administrator.role)})
                       .text(0, 0) == "t";
        });
    }

    bool removeAdministrator(std::string_view name) override {
        return transaction(kBeginChange, [&] {
            return m_connection.run("DELETE FROM administrators WHERE name = $1", {sought(name)}).changed() > 0;
        });
    }

    std::unique_ptr<Replacement> replace() override {
        return retrying([&] { return std::make_unique<Replacing>(m_connection); });
    }

    /// When the connection is lost in the middle, this fails and is not repeated: `taker` has a part already.
    void giveTo(ClusterTaker& taker) override {
        const AnyTime anyTime(m_connection);
        PostgresTransaction transaction(m_connection, kBeginReading);
        m_connection.run(PostgresConnection::kLetTakeAnyTime);
        taker.setCluster(m_connection.run("SELECT cluster_id FROM store").text(0, 0),
                         levelIn(m_connection.run(kTraceLevel)));
        taker.clearAdministrators();
        each("SELECT name, password_hash, role FROM administrators ORDER BY name", {},
             [&](const auto& rows, int row) { taker.addAdministrator(administratorOf(rows, row)); });
        each("SELECT label, time FROM keys ORDER BY number", {},
             [&](const auto& rows, int row) { taker.addKey(rows.text(row, 0), rows.integer32(row, 1)); });
        each("SELECT id, user_name, digest, answer FROM changes ORDER BY number", {}, [&](const auto& rows, int row) {
            taker.addChange({rows.text(row, 0), rows.text(row, 1), rows.text(row, 2)}, rows.text(row, 3));
        });
        const PostgresRows realms = m_connection.run("SELECT number, name FROM realms ORDER BY number");
        for (int row = 0; row < realms.size(); ++row) {
            taker.addRealm(realms.integer(row, 0), realms.text(row, 1));
            giveRealm(realms.integer(row, 0), taker);
        }
    }

    void backUp(const std::string&) override { failForOtherTools(m_name); }

  private:
    /// Reads rows one after the other with only a few in memory. To be called inside a transaction.
    template <typename Action>
    void each(const std::string& sql, std::initializer_list<Value> values, const Action& action) {
        m_connection.run(("DECLARE listing NO SCROLL CURSOR FOR " + sql).c_str(), values);
        for (PostgresRows rows = m_connection.run(kFetch); rows.size() > 0; rows = m_connection.run(kFetch)) {
            for (int row = 0; row < rows.size(); ++row) {
                action(rows, row);
            }
        }
        m_connection.run("CLOSE listing");
    }

    void giveRealm(std::int64_t realm, ClusterTaker& taker) {
        std::optional<std::int64_t> last;
        each(
            "SELECT s.number, s.name, m.name, m.last_contact FROM replica_sets s "
            "LEFT JOIN members m ON m.replica_set = s.number WHERE s.realm = $1 ORDER BY s.number, m.number",
            {realm}, [&](const auto& rows, int row) {
                const std::int64_t set = rows.integer(row, 0);
                if (std::exchange(last, set) != set) {
                    taker.addReplicaSet(set, realm, rows.text(row, 1));
                }
                if (!rows.isNull(row, 2)) {
                    taker.addMember(set, {std::string(rows.text(row, 2)), rows.integer32(row, 3)});
                }
            });
        SessionBatches sessions(taker);
        each("SELECT id, user_name, time FROM sessions WHERE realm = $1 ORDER BY id", {realm},
             [&](const auto& rows, int row) {
                 sessions.add(realm, rows.text(row, 0), rows.text(row, 1), rows.integer32(row, 2));
             });
        sessions.flush();
    }

    /// Marks that transactions are parts of an outer one.
    class InChange {
      public:
        explicit InChange(bool& mark) : m_mark(mark) { m_mark = true; }
        ~InChange() { m_mark = false; }
        InChange(const InChange&) = delete;
        InChange& operator=(const InChange&) = delete;

      private:
        bool& m_mark;
    };

    /// Connects, and makes the schema if that is wanted; throws unless it is ours and of this version.
    void connect(IfMissing ifMissing) {
        m_outage->check(Outage::kConnecting);
        const auto start = std::chrono::steady_clock::now();
        try {
            m_connection.open(m_clusterId.empty());
        } catch (const Failure& failure) {
            if (std::chrono::steady_clock::now() - start > kLong) {
                m_outage->begin(Outage::kConnecting, failure.what());
            }
            throw;
        }
        try {
            if (m_connection.run("SHOW server_encoding").text(0, 0) != "UTF8") {
                throw Failure(m_name + " cannot be used: its encoding is not UTF8");
            }
            if (ifMissing == IfMissing::kCreate) {
                createSchema();
            }
            checkSchema();
        } catch (const PostgresError& error) {
            m_connection.close();
            throw Failure(m_name + " cannot be used: " + error.what());
        } catch (...) {
            m_connection.close();
            throw;
        }
    }

    bool has(const char* expression) { return dsessd::has(m_connection, expression); }

    void createSchema() {
        if (has("to_regnamespace('dsessd')")) {
            return;
        }
        PostgresTransaction transaction(m_connection, "BEGIN");
        m_connection.run("SELECT pg_advisory_xact_lock(1146312531)");  // "DSES"
        if (!has("to_regnamespace('dsessd')")) {                       // another process may have been faster
            m_connection.run(kSchema);
            m_connection.run(kChangesTable);
            m_connection.run(kCountsTable);
            m_connection.run("INSERT INTO store (version, cluster_id) VALUES ($1, $2)", {kSchemaVersion, newUuid()});
            insertKey(m_connection, presentTime());
        }
        transaction.commit();
    }

    void checkSchema() {
        if (const int version = versionOf(m_connection, m_name); version != kSchemaVersion) {
            failForVersion(m_name, version, kSchemaVersion);
        }
        checkCluster(m_connection.run(kCluster));
    }

    /// What a host leads to may change while a node runs, and so may what a database holds.
    void checkCluster(const PostgresRows& rows) {
        const std::string_view found = rows.text(0, 0);
        if (rows.integer(0, 1) != kSchemaVersion) {
            m_connection.close();
            throw Failure(Reason::kUnavailable, m_name + " was raised to another schema version");
        }
        if (m_clusterId.empty()) {
            m_clusterId = found;
        } else if (found != m_clusterId) {
            const std::string where = m_connection.place();
            m_connection.close();
            throw Failure::replaced(m_name + " holds another cluster now, at " + where, std::string(found));
        }
    }

    /// Does it once more on a new connection when the old one was lost, and a few times when others stand in the way.
    /// What is lost before its commit is undone.
    template <typename Action>
    std::invoke_result_t<const Action&> retrying(const Action& action) {
        const auto start = std::chrono::steady_clock::now();
        bool reconnected = false;
        m_outage->check(Outage::kAnything);
        for (int attempt = 1;; ++attempt) {
            try {
                if (!m_connection.isOpen()) {
                    reconnected = true;
                    connect(IfMissing::kFail);
                    if (std::exchange(m_isLost, false)) {
                        m_say(Event::kMadeAnew, "connected to the database at " + m_connection.place() + " again");
                    }
                }
                return action();
            } catch (const PostgresLost& lost) {
                m_isLost = true;
                const bool isLate = std::chrono::steady_clock::now() - start > kAnewWithin;
                if (isLate) {
                    m_outage->begin(Outage::kAnything, lost.what());
                }
                if (reconnected || isLate) {
                    throw;
                }
                m_say(Event::kLost, std::string("connection lost: ") + lost.what());
            } catch (const PostgresConflict& conflict) {
                if (attempt == kTries) {
                    throw Failure(Reason::kBusy, conflict.what());
                }
                std::this_thread::sleep_for(kStepAside * attempt);
            }
        }
    }

    template <typename Action>
    std::invoke_result_t<const Action&> transaction(const char* begin, const Action& action) {
        if (m_inChange) {
            return action();
        }
        if (begin == kBeginChange) {
            m_outage->check(Outage::kChanges);
        }
        return retrying([&] {
            PostgresTransaction transaction(m_connection, begin);
            if (transaction.begun().size() == 1) {
                checkCluster(transaction.begun());
            }
            auto result = action();
            commit(transaction);
            return result;
        });
    }

    void commit(PostgresTransaction& transaction) {
        const auto start = std::chrono::steady_clock::now();
        try {
            transaction.commit();
        } catch (const Failure&) {
            if (std::chrono::steady_clock::now() - start > kAnewWithin) {
                m_outage->begin(Outage::kChanges, "the database does not commit a change in time");
            }
            throw;
        }
    }

    /// One that only reads.
    PostgresRows statement(const char* sql, std::initializer_list<Value> values = {}) {
        return m_inChange ? m_connection.run(sql, values) : retrying([&] { return m_connection.run(sql, values); });
    }

    /// `ends`: whether the statement removes the sessions, so that there are fewer.
    std::optional<int> changeSessions(const char* sql, std::string_view realm, std::string_view value, bool ends) {
        return transaction(kBeginChange, [&]() -> std::optional<int> {
            const auto number = realmNumber(m_connection, realm);
            if (!number) {
                return std::nullopt;
            }
            m_connection.run(PostgresConnection::kLetTakeMinutes);
            const int count = m_connection.run(sql, {*number, sought(value)}, kMinutes).changed();
            if (ends && count != 0) {
                m_connection.run(kAddToCount, {*number, -count});
            }
            return count;
        });
    }

    static int levelIn(const PostgresRows& rows) {
        return rows.size() == 1 ? rows.integer32(0, 0) : kDefaultTraceLevel;
    }

    Key currentKey() {
        Key key;
        const PostgresRows rows = m_connection.run("SELECT label, time FROM keys ORDER BY number DESC LIMIT 2");
        if (rows.size() > 0) {
            key = {std::string(rows.text(0, 0)), rows.integer32(0, 1), rows.size() > 1 ? rows.integer32(1, 1) : 0};
        }
        return key;
    }

    /// Claims the identifier first, which waits for anyone who has claimed it.
    std::string recorded(const ChangeRecord& change, const std::function<std::string()>& action) {
        const PostgresRows claim = m_connection.run(
            "INSERT INTO changes (id, user_name, digest, answer) VALUES ($1, $2, $3, '') ON CONFLICT DO NOTHING",
            {change.id, change.user, change.digest});
        if (claim.changed() == 0) {
            const PostgresRows rows =
                m_connection.run("SELECT user_name, digest, answer FROM changes WHERE id = $1", {change.id});
            if (rows.size() == 0) {
                throw PostgresConflict("the record of the change was just removed", "");
            }
            checkSameChange(change, rows.text(0, 0), rows.text(0, 1));
            // A commit that wrote nothing does not wait for a standby, which may lack the record.
            m_connection.run("SELECT pg_logical_emit_message(true, 'dsessd', '')");
            return std::string(rows.text(0, 2));
        }
        std::string answer = action();
        m_connection.run("UPDATE changes SET answer = $2 WHERE id = $1", {change.id, answer});
        const std::int64_t newest = m_connection.run("SELECT max(number) FROM changes").integer(0, 0);
        m_connection.run(
            "DELETE FROM changes WHERE id IN (SELECT id FROM changes WHERE number <= $1 "
            "ORDER BY number LIMIT $2 FOR UPDATE SKIP LOCKED)",
            {m_ages.oldUpTo(newest), kForgetAtOnce});
        return answer;
    }

    const std::string m_uri;
    const std::string m_name;
    const Say m_say;
    const std::shared_ptr<Outage> m_outage;
    PostgresConnection m_connection;
    ChangeAges m_ages;
    std::string m_clusterId;
    bool m_inChange = false;
    /// Whether the last connection broke. One that was closed on purpose did not.
    bool m_isLost = false;
};

}  // namespace

std::string nameOfPostgres(const std::string& uri) {
    return PostgresConnection::nameOf(uri);
}

StoreVersions upgradePostgresStore(const std::string& uri, Store::Say say) {
    const std::string name = nameOfPostgres(uri);
    PostgresConnection connection(uri, std::move(say));
    connection.open(true);
    try {
        StoreVersions versions{versionOf(connection, name), kSchemaVersion};
        if (versions.before != kSchemaVersion) {
            PostgresTransaction transaction(connection, "BEGIN");
            connection.run(PostgresConnection::kLetTakeMinutes);
            // From here on other connections wait for the lock. When they get it they find the new version and refuse.
            connection.run("LOCK TABLE store IN ACCESS EXCLUSIVE MODE");
            if (connection.run(kOtherNodes).integer(0, 0) != 0) {
                throw Failure(Reason::kBusy, name + " is in use; stop each dsessd that uses it, and try again");
            }
            versions.before = versionOf(connection, name);
            if (versions.before == 1) {
                connection.run(kKeepChanges1, {}, kMinutes);
                connection.run(kChangesTable);
                connection.run(kPutChanges1, {}, kMinutes);
            }
            connection.run(kCountsTable);
            connection.run(kRaise, {}, kMinutes);
            transaction.commit();
        }
        return versions;
    } catch (const PostgresError& error) {
        throw Failure(name + " cannot be used: " + error.what());
    }
}

std::unique_ptr<Store> openPostgresStore(const std::string& uri, Store::IfMissing ifMissing, Store::Say say) {
    return std::make_unique<PostgresStore>(uri, ifMissing, std::move(say), std::make_shared<Outage>());
}

}  // namespace dsessd
