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

#include "server/store/Store.h"

namespace dsessd {

/// What PostgreSQL says, with its code (https://www.postgresql.org/docs/current/errcodes-appendix.html).
class PostgresError : public Failure {
  public:
    PostgresError(const std::string& text, std::string code) : Failure(text), m_code(std::move(code)) {}
    const std::string& code() const { return m_code; }

  private:
    std::string m_code;
};

/// The connection is gone, or of no use any more. The transaction is undone, unless it was being committed.
class PostgresLost : public Failure {
  public:
    explicit PostgresLost(const std::string& text) : Failure(Reason::kUnavailable, text) {}
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

    /// A statement has an end, after which the connection is given up.
    enum class Takes {
        kSeconds,  ///< it finds what it needs by an index
        kMinutes,  ///< it may go through all that there is
    };
    /// The time that PostgreSQL itself gives to a statement, in a transaction with such.
    static constexpr char kLetTakeMinutes[] = "SET LOCAL statement_timeout = '10min'";
    static constexpr char kLetTakeAnyTime[] =
        "SET LOCAL statement_timeout = 0; SET LOCAL idle_in_transaction_session_timeout = 0";

    /// Does not connect yet. `say` takes PostgreSQL's notices.
    PostgresConnection(std::string uri, Store::Say say) : m_uri(std::move(uri)), m_say(std::move(say)) {}
    PostgresConnection(const PostgresConnection&) = delete;
    PostgresConnection& operator=(const PostgresConnection&) = delete;

    /// Connects, and sets what holds for the connection. Throws Reason::kUnavailable; the first time Reason::kFailed
    /// when it is no use to try again.
    void open(bool isFirst);
    /// The host and port that it leads to.
    std::string place() const;
    bool isOpen() const { return m_connection != nullptr; }
    void close() { m_connection.reset(); }
    /// What is asked while a statement runs, other than one that ends a transaction: true closes the connection, and
    /// Reason::kInterrupted is thrown. Empty: nothing.
    void endWhen(std::function<bool()> impatient) { m_impatient = std::move(impatient); }

    /// One statement with parameters; or, without any, one or several, of which the last one's rows come back.
    PostgresRows run(const char* sql, std::initializer_list<Value> values = {}, Takes takes = Takes::kSeconds);
    /// For a load: statements and pauses between them may take any time.
    void takeAnyTime(bool any) { m_anyTime = any; }
    /// Ends the transaction for good, as safe as `synchronous_commit` makes it. Throws Reason::kUncertain. Undone when
    /// it throws anything else.
    void commit();
    /// Undoes the transaction. Closes the connection where that fails.
    void rollBack() noexcept;

    /// What names a database, without user and password. Throws Failure when the URI is malformed.
    static std::string nameOf(const std::string& uri);

  private:
    struct Finish {
        void operator()(PGconn* connection) const { PQfinish(connection); }
    };

    using Clock = std::chrono::steady_clock;

    bool isRefused();
    static void takeNotice(void* self, const PGresult* notice);
    void send(const char* sql, std::initializer_list<Value> values);
    void await();
    bool answersOthers() const;
    [[noreturn]] void drop(const std::string& why);
    PostgresRows result();
    PostgresRows endWith(const char* command, Clock::duration atMost);
    [[noreturn]] void fail(const PGresult* result);

    std::string m_uri;
    Store::Say m_say;
    std::unique_ptr<PGconn, Finish> m_connection;
    /// When what runs is given up, and the connection with it.
    Clock::time_point m_end;
    /// When to ask the database on another connection whether it still answers, if this one stays silent.
    Clock::time_point m_nextDoubt;
    /// How many of these questions in a row had no answer.
    int m_silences = 0;
    bool m_anyTime = false;
    bool m_isEnding = false;
    /// Whether, and of what, PostgreSQL has warned since the last statement began.
    bool m_isWarned = false;
    std::string m_warning;
    std::function<bool()> m_impatient;
};

/// A transaction, undone unless committed.
class PostgresTransaction {
  public:
    PostgresTransaction(PostgresConnection& connection, const char* begin) : m_connection(connection) {
        try {
            m_begun = connection.run(begin);
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
    /// The rows of what it began with.
    const PostgresRows& begun() const { return m_begun; }
    void commit() {
        m_open = false;
        m_connection.commit();
    }

  private:
    PostgresConnection& m_connection;
    PostgresRows m_begun{nullptr};
    bool m_open = true;
};

}  // namespace dsessd
