#include "server/PostgresConnection.h"

#include <poll.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <utility>
#include <vector>

namespace dsessd {

namespace {

using Clock = std::chrono::steady_clock;

// A commit that takes longer waits for something that does not come, such as a standby.
constexpr std::chrono::seconds kCommitAtMost{30};
constexpr std::chrono::seconds kRollBackAtMost{5};
constexpr int kBetweenQuestions = 50;  // milliseconds

// Seconds and, for the last, milliseconds. Whatever the URI says counts instead.
constexpr std::array<std::pair<const char*, const char*>, 7> kDefaults{{
    {"fallback_application_name", "dsessd"},
    {"connect_timeout", "3"},
    {"keepalives_idle", "5"},
    {"keepalives_interval", "2"},
    {"keepalives_count", "3"},
    {"gssencmode", "disable"},
    {"tcp_user_timeout", "10000"},
}};

/// A message of libpq, which ends its lines, as one line.
std::string lineOf(const char* message) {
    std::string line;
    for (const char* c = message; *c != '\0'; ++c) {
        const bool blank = *c == '\n' || *c == '\t' || *c == '\r' || *c == ' ';
        if (!blank) {
            line += *c;
        } else if (!line.empty() && line.back() != ' ') {
            line += ' ';
        }
    }
    if (line.ends_with(' ')) {
        line.pop_back();
    }
    return line;
}

/// What this process cannot go on with, though the connection may stand: the server stops, or has become a standby.
bool meansLost(const std::string& code) {
    return code.starts_with("57P") || code.starts_with("08") || code == "25006";
}

template <typename Integer>
Integer numberOf(std::string_view text) {
    Integer number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return number;
}

}  // namespace

std::int64_t PostgresRows::integer(int row, int column) const {
    return numberOf<std::int64_t>(text(row, column));
}

int PostgresRows::changed() const {
    return numberOf<int>(PQcmdTuples(m_result.get()));
}

void PostgresConnection::open() {
    std::vector<const char*> keywords;
    std::vector<const char*> values;
    for (const auto& [keyword, value] : kDefaults) {
        keywords.push_back(keyword);
        values.push_back(value);
    }
    for (const auto& [keyword, value] : {std::pair("dbname", m_uri.c_str()), std::pair("client_encoding", "UTF8"),
                                         std::pair<const char*, const char*>(nullptr, nullptr)}) {
        keywords.push_back(keyword);
        values.push_back(value);
    }
    m_connection.reset(PQconnectdbParams(keywords.data(), values.data(), 1));
    if (m_connection == nullptr || PQstatus(m_connection.get()) != CONNECTION_OK) {
        const std::string why = m_connection == nullptr ? "no memory" : lineOf(PQerrorMessage(m_connection.get()));
        close();
        throw StoreUnavailable(nameOf(m_uri) + " cannot be reached: " + why);
    }
}

PostgresRows PostgresConnection::run(const char* sql, std::initializer_list<Value> values) {
    if (!isOpen()) {
        throw PostgresLost("the connection to the database is lost", "");
    }
    std::vector<const char*> bytes;
    std::vector<int> lengths;
    std::vector<int> formats;
    for (const Value& value : values) {
        bytes.push_back(value.bytes().c_str());
        lengths.push_back(static_cast<int>(value.bytes().size()));
        formats.push_back(value.format());
    }
    const int sent = values.size() == 0 ? PQsendQuery(m_connection.get(), sql)
                                        : PQsendQueryParams(m_connection.get(), sql, static_cast<int>(values.size()),
                                                            nullptr, bytes.data(), lengths.data(), formats.data(), 0);
    if (sent == 0) {
        fail(nullptr);
    }
    return result();
}

/// Waits until there is something to read.
void PostgresConnection::await() {
    pollfd socket{PQsocket(m_connection.get()), POLLIN, 0};
    while (::poll(&socket, 1, kBetweenQuestions) == 0) {
        if (Clock::now() > m_end) {
            close();
            throw PostgresLost("the database does not answer", "");
        }
        // The database notices and stops too: see client_connection_check_interval.
        if (m_end == Clock::time_point::max() && m_impatient && m_impatient()) {
            close();
            throw StoreInterrupted("nobody waits for it any more");
        }
    }
}

PostgresRows PostgresConnection::result() {
    PostgresRows rows(nullptr);
    std::unique_ptr<PGresult, decltype(&PQclear)> failure(nullptr, PQclear);
    for (;;) {
        while (PQisBusy(m_connection.get()) != 0) {
            await();
            if (PQconsumeInput(m_connection.get()) == 0) {
                fail(failure.get());
            }
        }
        PGresult* next = PQgetResult(m_connection.get());
        if (next == nullptr) {
            break;
        }
        const ExecStatusType status = PQresultStatus(next);
        if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK) {
            rows = PostgresRows(next);
        } else {
            failure.reset(next);
        }
    }
    if (failure != nullptr) {
        fail(failure.get());
    }
    return rows;
}

void PostgresConnection::fail(const PGresult* result) {
    const char* given = result == nullptr ? nullptr : PQresultErrorField(result, PG_DIAG_SQLSTATE);
    const char* primary = result == nullptr ? nullptr : PQresultErrorField(result, PG_DIAG_MESSAGE_PRIMARY);
    const std::string code = given == nullptr ? "" : given;
    const std::string text = lineOf(primary != nullptr ? primary : PQerrorMessage(m_connection.get()));
    if (PQstatus(m_connection.get()) != CONNECTION_OK || meansLost(code)) {
        close();
        throw PostgresLost(text, code);
    }
    if (code == "55P03") {  // the time for waiting is up
        throw StoreBusy(text);
    }
    if (code == "40001" || code == "40P01") {  // not serializable, a deadlock
        throw PostgresConflict(text, code);
    }
    throw PostgresError(text, code);
}

void PostgresConnection::commit() {
    try {
        // After a failed statement, the command is accepted and does the opposite.
        if (endWith("COMMIT", kCommitAtMost).command() != "COMMIT") {
            throw PostgresError("the change was undone because a part of it had failed", "");
        }
    } catch (const PostgresLost& error) {
        throw StoreUncertain(std::string("it is not known whether the change was made: ") + error.what());
    }
}

void PostgresConnection::rollBack() noexcept {
    try {
        if (isOpen()) {
            endWith("ROLLBACK", kRollBackAtMost);
        }
    } catch (const std::exception&) {
        close();
    }
}

PostgresRows PostgresConnection::endWith(const char* command, Clock::duration atMost) {
    m_end = Clock::now() + atMost;
    const std::unique_ptr<Clock::time_point, void (*)(Clock::time_point*)> reset(
        &m_end, [](Clock::time_point* end) { *end = Clock::time_point::max(); });
    return run(command);
}

std::string PostgresConnection::nameOf(const std::string& uri) {
    char* why = nullptr;
    PQconninfoOption* options = PQconninfoParse(uri.c_str(), &why);
    PQfreemem(why);  // it may hold a password
    if (options == nullptr) {
        throw StoreError("the URI of the database is malformed");
    }
    std::string database;
    std::string host;
    for (const PQconninfoOption* option = options; option->keyword != nullptr; ++option) {
        const std::string_view keyword = option->keyword;
        if (option->val != nullptr && (keyword == "dbname" || keyword == "host")) {
            (keyword == "host" ? host : database) = option->val;
        }
    }
    PQconninfoFree(options);
    return "the PostgreSQL database" + (database.empty() ? "" : " " + database) + (host.empty() ? "" : " at " + host);
}

}  // namespace dsessd
