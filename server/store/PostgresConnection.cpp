#include "server/store/PostgresConnection.h"

#include <poll.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <utility>
#include <vector>

namespace dsessd {

namespace {

// Whoever asks is to have an answer within 10 seconds, so that it can go on to another node. PostgreSQL gives up before
// that by itself, if it can: see kSettings.
constexpr std::chrono::seconds kSecondsAtMost{8};
constexpr std::chrono::minutes kMinutesAtMost{11};
// A commit that takes longer waits for something that does not come, such as a standby.
constexpr std::chrono::seconds kCommitAtMost{8};
constexpr std::chrono::seconds kLoadCommitAtMost{60};
constexpr std::chrono::seconds kRollBackAtMost{2};
// How long a database may be silent before it is asked on another connection whether it is there, and how long that may
// take. The connection itself does not tell: a machine that stands still keeps its connections.
constexpr std::chrono::seconds kDoubtAfter{2};
constexpr char kDoubtAtMost[] = "2";
// A load asks so many times before it gives the database up, which takes a minute: nobody waits for its answer.
constexpr int kSilencesOfLoad = 15;
constexpr int kBetweenQuestions = 50;  // milliseconds

// Seconds and, for the last, milliseconds. Whatever the URI says counts instead.
constexpr std::array<std::pair<const char*, const char*>, 7> kDefaults{{
    {"fallback_application_name", "dsessd"},
    {"connect_timeout", "3"},
    {"keepalives_idle", "5"},
    {"keepalives_interval", "2"},
    {"keepalives_count", "3"},
    {"gssencmode", "disable"},
    {"tcp_user_timeout", "8000"},
}};

// These bound how long a node can hold locks after its machine is gone, how long one waits for a lock, and how long a
// transaction may stand idle. Warnings are wanted: one says that a commit may not have reached the standby.
constexpr char kSettings[] = R"(
SET search_path = dsessd, pg_temp;
SET lock_timeout = '6s';
SET statement_timeout = '7s';
SET idle_in_transaction_session_timeout = '5s';
SET client_min_messages = warning;
SET client_connection_check_interval = '1s';
SET tcp_user_timeout = '8s';
SET tcp_keepalives_idle = 5;
SET tcp_keepalives_interval = 2;
SET tcp_keepalives_count = 3;
)";

// PostgreSQL's time limit must not cut off the wait for a standby: everybody would then see what no standby has. If a
// statement of the transaction has failed, SET fails too, and nothing is committed.
constexpr char kCommit[] = "SET LOCAL statement_timeout = 0; COMMIT";

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

/// Whether another attempt or another node may succeed: the disk is full or fails, or a statement was ended.
bool meansUnavailable(const std::string& code) {
    return code.starts_with("53") || code.starts_with("57") || code.starts_with("58");
}

/// What this process cannot go on with, though the connection may stand: the server stops, or is a standby, which
/// neither writes nor begins to.
bool meansLost(const std::string& code) {
    return code.starts_with("57P") || code.starts_with("08") || code == "25006" || code == "0A000";
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

/// Whether it is no use to connect again, since the server turns this user, password or database down, or the URI has a
/// value that does not exist.
bool PostgresConnection::isRefused() {
    const std::array<const char*, 5> keywords{"dbname", "host", "hostaddr", "port", nullptr};
    const std::array<const char*, 5> values{m_uri.c_str(), "localhost", "127.0.0.1", "1", nullptr};
    if (PQconnectionNeedsPassword(m_connection.get()) == 1 ||
        PQpingParams(keywords.data(), values.data(), 1) == PQPING_NO_ATTEMPT) {
        return true;
    }
    // libpq gives the code of a connection that failed only as a text for people, at the end of a line.
    PQsetErrorVerbosity(m_connection.get(), PQERRORS_SQLSTATE);
    PQreset(m_connection.get());
    const std::string text = PQerrorMessage(m_connection.get());
    constexpr std::size_t kCode = 5;
    for (std::size_t end = 0; (end = text.find('\n', end + 1)) != std::string::npos;) {
        const std::size_t begin = end - std::min(end, kCode);
        const std::string code = text.substr(begin, end - begin);
        const bool isCode = text.substr(0, begin).ends_with(":  ");
        if (isCode && !meansUnavailable(code) && !meansLost(code)) {
            return true;
        }
    }
    return false;
}

void PostgresConnection::open(bool isFirst) {
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
        const std::string why = nameOf(m_uri) + " cannot be reached: " +
                                (m_connection == nullptr ? "no memory" : lineOf(PQerrorMessage(m_connection.get())));
        const bool isFinal = isFirst && m_connection != nullptr && isRefused();
        close();
        throw Failure(isFinal ? Reason::kFailed : Reason::kUnavailable, why);
    }
    PQsetNoticeReceiver(m_connection.get(), takeNotice, this);
    run(kSettings);
}

std::string PostgresConnection::place() const {
    const std::string port = PQport(m_connection.get());  // empty where nobody named one, in some versions of libpq
    return PQhost(m_connection.get()) + (port.empty() ? port : ":" + port);
}

void PostgresConnection::takeNotice(void* self, const PGresult* notice) {
    auto& connection = *static_cast<PostgresConnection*>(self);
    const auto field = [notice](int code) {
        const char* text = PQresultErrorField(notice, code);
        return lineOf(text == nullptr ? "" : text);
    };
    try {
        const char* severity = PQresultErrorField(notice, PG_DIAG_SEVERITY_NONLOCALIZED);
        const bool warns = severity != nullptr && std::string_view(severity) == "WARNING";
        connection.m_isWarned = connection.m_isWarned || warns;
        const std::string detail = field(PG_DIAG_MESSAGE_DETAIL);
        const std::string text = field(PG_DIAG_MESSAGE_PRIMARY) + (detail.empty() ? "" : "; " + detail);
        connection.m_say(Store::Event::kNotice, "the database says: " + text);
        if (warns) {
            connection.m_warning = text;
        }
    } catch (const std::exception&) {
        return;  // no memory for its words
    }
}

PostgresRows PostgresConnection::run(const char* sql, std::initializer_list<Value> values, Takes takes) {
    const auto now = Clock::now();
    m_end = m_anyTime                  ? Clock::time_point::max()
            : takes == Takes::kSeconds ? now + kSecondsAtMost
                                       : now + kMinutesAtMost;
    send(sql, values);
    return result();
}

void PostgresConnection::send(const char* sql, std::initializer_list<Value> values) {
    if (!isOpen()) {
        throw PostgresLost("the connection to the database is lost");
    }
    m_isWarned = false;
    m_warning.clear();
    m_nextDoubt = Clock::now() + kDoubtAfter;
    m_silences = 0;
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
}

void PostgresConnection::drop(const std::string& why) {
    const std::string where = place();
    close();
    throw PostgresLost("the database at " + where + " " + why);
}

/// Whether the server lets anybody connect.
bool PostgresConnection::answersOthers() const {
    const std::array<const char*, 4> keywords{"host", "port", "connect_timeout", nullptr};
    const std::array<const char*, 4> values{PQhost(m_connection.get()), PQport(m_connection.get()), kDoubtAtMost,
                                            nullptr};
    return PQpingParams(keywords.data(), values.data(), 0) != PQPING_NO_RESPONSE;
}

/// Waits until there is something to read.
void PostgresConnection::await() {
    pollfd socket{PQsocket(m_connection.get()), POLLIN, 0};
    while (::poll(&socket, 1, kBetweenQuestions) == 0) {
        if (Clock::now() > m_end) {
            drop("does not answer in time");
        }
        if (Clock::now() > m_nextDoubt) {
            m_silences = answersOthers() ? 0 : m_silences + 1;
            if (m_silences > (m_anyTime ? kSilencesOfLoad : 0) && ::poll(&socket, 1, 0) == 0) {
                drop("does not answer, and takes no connections");
            }
            m_nextDoubt = Clock::now() + kDoubtAfter;
        }
        // The database notices and stops too: see client_connection_check_interval.
        if (!m_isEnding && m_impatient && m_impatient()) {
            close();
            throw Failure(Reason::kInterrupted, "nobody waits for it any more");
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
        throw PostgresLost(text);
    }
    if (meansUnavailable(code)) {
        throw Failure(Reason::kUnavailable, "the database cannot do it now: " + text);
    }
    if (code == "55P03") {  // the time for waiting is up
        throw Failure(Reason::kBusy, text);
    }
    if (code == "40001" || code == "40P01") {  // not serializable, a deadlock
        throw PostgresConflict(text, code);
    }
    throw PostgresError(text, code);
}

void PostgresConnection::commit() {
    constexpr char kUnknown[] = "it is not known whether the change was made: ";
    try {
        endWith(kCommit, m_anyTime ? kLoadCommitAtMost : kCommitAtMost);
    } catch (const PostgresLost& error) {
        throw Failure(Reason::kUncertain, std::string(kUnknown) + error.what());
    } catch (...) {
        rollBack();
        throw;
    }
    // A wait for the standby that was cut off ends so: PostgreSQL has committed, and calls it a success.
    if (m_isWarned) {
        throw Failure(Reason::kUncertain, kUnknown + m_warning);
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
    m_isEnding = true;
    const std::unique_ptr<bool, void (*)(bool*)> reset(&m_isEnding, [](bool* isEnding) { *isEnding = false; });
    m_end = Clock::now() + atMost;
    send(command, {});
    return result();
}

std::string PostgresConnection::nameOf(const std::string& uri) {
    char* why = nullptr;
    PQconninfoOption* options = PQconninfoParse(uri.c_str(), &why);
    PQfreemem(why);  // it may hold a password
    if (options == nullptr) {
        throw Failure("the URI of the database is malformed");
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
