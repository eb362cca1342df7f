#include "server/Sqlite.h"

namespace dsessd {

namespace {

[[noreturn]] void raise(sqlite3* handle, int code) {
    throw SqliteError(code, handle == nullptr ? sqlite3_errstr(code) : sqlite3_errmsg(handle));
}

}  // namespace

Database::Database(const std::string& path, int openFlags) {
    sqlite3* handle = nullptr;
    const int code = sqlite3_open_v2(path.c_str(), &handle, openFlags, nullptr);
    m_handle.reset(handle);
    if (code != SQLITE_OK) {
        raise(handle, code);
    }
}

void Database::execute(const char* sql) {
    if (const int code = sqlite3_exec(handle(), sql, nullptr, nullptr, nullptr); code != SQLITE_OK) {
        raise(handle(), code);
    }
}

std::int64_t Database::queryInteger(const char* sql) {
    const Statement statement(*this, sql);
    Query query(statement);
    return query.step() ? query.integer(0) : 0;
}

Statement::Statement(const Database& database, const char* sql) {
    sqlite3_stmt* handle = nullptr;
    const int code = sqlite3_prepare_v3(database.handle(), sql, -1, SQLITE_PREPARE_PERSISTENT, &handle, nullptr);
    if (code != SQLITE_OK) {
        raise(database.handle(), code);
    }
    m_handle.reset(handle);
}

bool Query::step() {
    const int code = sqlite3_step(m_handle);
    if (code != SQLITE_ROW && code != SQLITE_DONE) {
        raise(sqlite3_db_handle(m_handle), code);
    }
    return code == SQLITE_ROW;
}

std::string_view Query::text(int column) const {
    const auto* bytes = sqlite3_column_text(m_handle, column);
    if (bytes == nullptr) {
        return {};
    }
    const int length = sqlite3_column_bytes(m_handle, column);
    return {reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(length)};
}

void Query::bind(int index, std::int64_t value) {
    if (const int code = sqlite3_bind_int64(m_handle, index, value); code != SQLITE_OK) {
        raise(sqlite3_db_handle(m_handle), code);
    }
}

void Query::bind(int index, std::string_view value) {
    const int code = sqlite3_bind_text64(m_handle, index, value.data() == nullptr ? "" : value.data(), value.size(),
                                         SQLITE_STATIC, SQLITE_UTF8);
    if (code != SQLITE_OK) {
        raise(sqlite3_db_handle(m_handle), code);
    }
}

Transaction::Transaction(Database& database, Kind kind) : m_database(database) {
    database.execute(kind == Kind::kWrite ? "BEGIN IMMEDIATE" : "BEGIN");
}

Transaction::~Transaction() {
    if (m_open) {
        sqlite3_exec(m_database.handle(), "ROLLBACK", nullptr, nullptr, nullptr);
    }
}

void Transaction::commit() {
    m_database.execute("COMMIT");
    m_open = false;
}

}  // namespace dsessd
