/// A connection to a PostgreSQL database, over libpq. For PostgresStore alone.
#pragma once

#include <libpq-fe.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "server/Store.h"

namespace dsessd {

/// What PostgreSQL says, with its code (https://www.postgresql.org/docs/current/errcodes-appendix.html).
class PostgresError : public StoreError {
  public:
    PostgresError(const std::string& text, std::string code) : StoreError(text), m_code(std::move(code)) {}
    const std::string& code() const { return m_code; }

  private:
    std::string m_code;
};

/// The connection is gone, or of no use any more. The transaction is undone, unless it was being committed.
class PostgresLost : public PostgresError {
  public:
    using PostgresError::PostgresError;
};

/// The transaction stood in another's way: it is undone, and may succeed when it is tried anew.
class PostgresConflict : public PostgresError {
  public:
    using PostgresError::PostgresError;
};

/// What a statement gave.
class PostgresRows {
  public:
    explicit PostgresRows(PGresult* result) : m_result(result) {}

    int size() const { return PQntuples(m_result.get()); }
    bool isNull(int row, int column) const { return PQgetisnull(m_result.get(), row, column) != 0; }
    /// Valid as long as the rows are.
    std::string_view text(int row, int column) const {
        return {PQgetvalue(m_result.get(), row, column),
                static_cast<std::size_t>(PQgetlength(m_result.get(), row, column))};
    }
    std::int64_t integer(int row, int column) const;
    std::int32_t integer32(int row, int column) const { return static_cast<std::int32_t>(integer(row, column)); }
    /// How many rows the statement changed.
    int changed() const;
    /// The command that was carried out.
    std::string_view command() const { return PQcmdStatus(m_result.get()); }

  private:
    struct Clear {
        void operator()(PGresult* result) const { PQclear(result); }
    };
    std::unique_ptr<PGresult, Clear> m_result;
};

class PostgresConnection {
  public:
    /// A parameter of a statement.
    class Value {
      public:
        // NOLINTBEGIN(google-explicit-constructor): they are meant to convert
        Value(std::string_view text) : Value(std::string(text), 1) {}
        Value(const std::string& text) : Value(text, 1) {}
        Value(const char* text) : Value(text, 1) {}
        Value(std::int64_t number) : Value(std::to_string(number), 0) {}
        Value(std::int32_t number) : Value(std::to_string(number), 0) {}
        // NOLINTEND(google-explicit-constructor)
        /// Of any type, as PostgreSQL writes it.
        static Value written(std::string value) { return {std::move(value), 0}; }

        const std::string& bytes() const { return m_bytes; }
        /// As libpq takes it: text is given in its binary form, with its length; all else is written out.
        int format() const { return m_format; }

      private:
        Value(std::string bytes, int format) : m_bytes(std::move(bytes)), m_format(format) {}

        std::string m_bytes;
        int m_format;
    };

    /// Does not connect yet.
    explicit PostgresConnection(std::string uri) : m_uri(std::move(uri)) {}
    PostgresConnection(const PostgresConnection&) = delete;
    PostgresConnection& operator=(const PostgresConnection&) = delete;

    /// Connects. Throws StoreUnavailable.
    void open();
    bool isOpen() const { return m_connection != nullptr; }
    void close() { m_connection.reset(); }
    /// What is asked while a statement runs, other than one that ends a transaction: true closes the connection, and
    /// StoreInterrupted is thrown. Empty: nothing.
    void endWhen(std::function<bool()> impatient) { m_impatient = std::move(impatient); }

    /// One statement with parameters; or, without any, one or several, of which the last one's rows come back.
    PostgresRows run(const char* sql, std::initializer_list<Value> values = {});
    /// Ends the transaction for good. Throws StoreUncertain.
    void commit();
    /// Undoes the transaction. Closes the connection where that fails.
    void rollBack() noexcept;

    /// What names a database, without user and password. Throws a StoreError when the URI is malformed.
    static std::string nameOf(const std::string& uri);

  private:
    struct Finish {
        void operator()(PGconn* connection) const { PQfinish(connection); }
    };

    void await();
    PostgresRows result();
    PostgresRows endWith(const char* command, std::chrono::steady_clock::duration atMost);
    [[noreturn]] void fail(const PGresult* result);

    std::string m_uri;
    std::unique_ptr<PGconn, Finish> m_connection;
    /// When what runs is given up, and the connection with it.
    std::chrono::steady_clock::time_point m_end = std::chrono::steady_clock::time_point::max();
    std::function<bool()> m_impatient;
};

/// A transaction, undone unless committed.
class PostgresTransaction {
  public:
    PostgresTransaction(PostgresConnection& connection, const char* begin) : m_connection(connection) {
        try {
            connection.run(begin);
        } catch (...) {
            connection.rollBack();
            throw;
        }
    }
    PostgresTransaction(const PostgresTransaction&) = delete;
    PostgresTransaction& operator=(const PostgresTransaction&) = delete;
    ~PostgresTransaction() {
        if (m_open) {
            m_connection.rollBack();
        }
    }
    void commit() {
        m_open = false;
        m_connection.commit();
    }

  private:
    PostgresConnection& m_connection;
    bool m_open = true;
};

}  // namespace dsessd
