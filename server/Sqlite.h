/// Owners for SQLite's handles. Every failure is a SqliteError.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace dsessd {

class SqliteError : public std::runtime_error {
  public:
    SqliteError(int code, const std::string& text) : std::runtime_error(text), m_code(code) {}
    /// The primary result code (https://sqlite.org/rescode.html).
    int code() const { return m_code & 0xFF; }

  private:
    int m_code;
};

/// One connection. Used by one thread at a time.
class Database {
  public:
    Database(const std::string& path, int openFlags);

    void execute(const char* sql);
    std::int64_t queryInteger(const char* sql);
    int changes() const { return sqlite3_changes(m_handle.get()); }
    sqlite3* handle() const { return m_handle.get(); }

  private:
    struct Closer {
        void operator()(sqlite3* handle) const { sqlite3_close_v2(handle); }
    };
    std::unique_ptr<sqlite3, Closer> m_handle;
};

/// A prepared statement. Run it through a Query.
class Statement {
  public:
    Statement(const Database& database, const char* sql);

  private:
    friend class Query;
    struct Finalizer {
        void operator()(sqlite3_stmt* handle) const { sqlite3_finalize(handle); }
    };
    std::unique_ptr<sqlite3_stmt, Finalizer> m_handle;
};

/// One run of a statement: parameters in order, then step() for each row. The statement is reset when the run goes.
class Query {
  public:
    template <typename... Parameters>
    explicit Query(const Statement& statement, const Parameters&... parameters) : m_handle(statement.m_handle.get()) {
        int index = 0;
        (bind(++index, parameters), ...);
    }
    Query(const Query&) = delete;
    Query& operator=(const Query&) = delete;
    ~Query() { sqlite3_reset(m_handle); }

    /// False: no more rows.
    bool step();
    /// Valid until the next step.
    std::string_view text(int column) const;
    std::int64_t integer(int column) const { return sqlite3_column_int64(m_handle, column); }
    std::int32_t integer32(int column) const { return sqlite3_column_int(m_handle, column); }

  private:
    void bind(int index, std::int64_t value);
    /// The text must outlive the run.
    void bind(int index, std::string_view value);

    sqlite3_stmt* m_handle;
};

/// A transaction, undone unless committed.
class Transaction {
  public:
    enum class Kind { kRead, kWrite };
    Transaction(Database& database, Kind kind);
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    ~Transaction();

    void commit();

  private:
    Database& m_database;
    bool m_open = true;
};

}  // namespace dsessd
