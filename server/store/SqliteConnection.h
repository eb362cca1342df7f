/// Statements and transactions on an SQLite file, over SQLiteCpp. Only the SQLite store uses this.
#pragma once

#include <SQLiteCpp/SQLiteCpp.h>
#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "server/log/Failure.h"
#include "server/store/SqliteFiles.h"

namespace dsessd::embedded {

/// An error of SQLite, with its primary result code (https://sqlite.org/rescode.html).
class SqliteError : public Failure {
  public:
    explicit SqliteError(const SQLite::Exception& error) : Failure(error.what()), m_code(error.getErrorCode()) {}
    int code() const { return m_code & 0xFF; }

  private:
    int m_code;
};

/// Every call of the library goes through here, so that its own kind of failure is seen nowhere else.
template <typename Action>
auto sqlite(const Action& action) {
    try {
        return action();
    } catch (const SQLite::Exception& error) {
        switch (error.getErrorCode() & 0xFF) {
            case SQLITE_BUSY:
                throw Failure(Reason::kBusy, error.what());
            case SQLITE_INTERRUPT:
                throw Failure(Reason::kInterrupted, error.what());
            case SQLITE_NOMEM:
            case SQLITE_IOERR:
            case SQLITE_FULL:
            case SQLITE_READONLY:
            case SQLITE_CANTOPEN:
            case SQLITE_PROTOCOL:
                throw Failure(Reason::kUnavailable, error.what());
            default:
                throw SqliteError(error);
        }
    }
}

inline void execute(SQLite::Database& database, const char* sql) {
    sqlite([&] { database.exec(sql); });
}

inline std::int64_t queryInteger(SQLite::Database& database, const char* sql) {
    return sqlite([&] { return database.execAndGet(sql).getInt64(); });
}

/// One run of a statement: parameters in order, then step() for each row. The statement is reset when the run goes,
/// since one that is left in the middle holds the transaction open.
class Query {
  public:
    template <typename... Parameters>
    explicit Query(SQLite::Statement& statement, const Parameters&... parameters) : m_statement(statement) {
        int index = 0;
        sqlite([&] { (statement.bind(++index, bindable(parameters)), ...); });
    }
    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;
    ~Query() { m_statement.tryReset(); }

    /// False: no more rows. Not to be called again then.
    bool step() {
        return sqlite([&] { return m_statement.executeStep(); });
    }
    /// False: the insertion would break a rule of uniqueness.
    bool insert() {
        try {
            step();
            return true;
        } catch (const SqliteError& error) {
            if (error.code() == SQLITE_CONSTRAINT) {
                return false;
            }
            throw;
        }
    }
    /// Valid until the next step.
    std::string_view text(int column) const {
        const SQLite::Column value = m_statement.getColumn(column);
        const char* bytes = value.getText();
        return {bytes, static_cast<std::size_t>(value.getBytes())};
    }
    std::int64_t integer(int column) const { return m_statement.getColumn(column).getInt64(); }
    std::int32_t integer32(int column) const { return m_statement.getColumn(column).getInt(); }

  private:
    static std::string bindable(std::string_view text) { return std::string(text); }
    static std::int64_t bindable(std::int64_t number) { return number; }

    SQLite::Statement& m_statement;
};

struct Connection {
    SQLite::Database database;
    std::shared_ptr<SqliteFiles> files;
    /// Whether every commit has succeeded.
    bool isSound = true;
};

/// A transaction, undone unless committed. Inside another transaction it is part of that one. A transaction that writes
/// takes the lock when it begins: a reader that begins to write fails if another has written meanwhile.
class Transaction {
  public:
    enum class Kind {
        kRead,
        kWrite,
        kTrial,  ///< tries whether a change succeeds, by writing what is there already
    };
    Transaction(Connection& connection, Kind kind) : m_connection(connection), m_kind(kind), m_open(!isInside()) {
        if (m_open && kind != Kind::kRead) {
            connection.files->check(connection.database.getHandle());
            execute(connection.database, "BEGIN IMMEDIATE");
        } else if (m_open) {
            execute(connection.database, "BEGIN");
        }
    }
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    ~Transaction() {
        if (m_open) {
            m_connection.database.tryExec("ROLLBACK");
        }
    }
    /// Throws Reason::kUncertain too; a trial Reason::kUnavailable in its place.
    void commit() {
        if (!m_open) {
            return;
        }
        try {
            execute(m_connection.database, "COMMIT");
            m_open = false;
            m_connection.files->check(m_connection.database.getHandle());
        } catch (const std::exception& error) {
            // If SQLite still has the transaction open, COMMIT wrote nothing. If the disk was full, the last page is
            // missing, and SQLite ignores the others. After any other failure the whole transaction may be in the
            // write-ahead log and come back after a crash. Nobody would see it of a trial.
            const int code = sqlite3_errcode(m_connection.database.getHandle()) & 0xFF;
            if (m_open && (isInside() || code == SQLITE_FULL)) {
                throw;
            }
            m_connection.isSound = false;
            if (m_kind == Kind::kTrial) {
                throw Failure(Reason::kUnavailable, error.what());
            }
            m_connection.files->doubt();
            throw Failure(Reason::kUncertain,
                          std::string("it is not known whether the change was made: ") + error.what());
        }
    }

  private:
    bool isInside() const { return sqlite3_get_autocommit(m_connection.database.getHandle()) == 0; }

    Connection& m_connection;
    const Kind m_kind;
    /// Whether this object began the transaction, and so ends it.
    bool m_open;
};

}  // namespace dsessd::embedded
