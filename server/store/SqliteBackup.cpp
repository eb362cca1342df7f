/// What is done to a data file as a whole: copied, put back, raised to this version.
#include <SQLiteCpp/Backup.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "runtime/QelFileDescriptor.h"
#include "server/store/NewFile.h"
#include "server/store/SqliteSchema.h"
#include "server/store/StoreEngines.h"

namespace dsessd {

using namespace embedded;

namespace {

// https://sqlite.org/fileformat2.html, "The lock-byte page": who has a log open has these locked for reading.
constexpr off_t kSharedBytesAt = 0x4000'0002;
constexpr off_t kSharedBytes = 510;

bool exists(const std::string& path) {
    struct stat found {};
    return ::stat(path.c_str(), &found) == 0;
}

/// Whether another process has the file open. Looks at SQLite's locks itself: SQLite does not open a damaged file.
bool isOpenElsewhere(const std::string& path) {
    const QelFileDescriptor file(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = kSharedBytesAt;
    lock.l_len = kSharedBytes;
    if (!file.isOpen() || ::fcntl(file.get(), F_OFD_GETLK, &lock) != 0) {
        throw Failure(path + " cannot be used: " + std::strerror(errno));
    }
    return lock.l_type != F_UNLCK;
}

/// Runs `action`, and puts the file's name before the text of a failure.
template <typename Action>
auto naming(const std::string& path, const Action& action) {
    try {
        return action();
    } catch (const SqliteError& error) {
        throw Failure(error.code() == SQLITE_NOTADB ? path + " is not a data file of dsessd"
                                                    : path + " cannot be used: " + error.what());
    } catch (const Failure& failure) {
        if (failure.reason() != Reason::kUnavailable) {
            throw;
        }
        throw Failure(path + " cannot be used: " + failure.what());
    }
}

SQLite::Database openOther(const std::string& path, int how) {
    return sqlite([&] { return SQLite::Database(path, how | SQLITE_OPEN_EXRESCODE); });
}

/// Throws a Failure that names `path`, unless what was copied from there is whole.
void check(SQLite::Database& copy, const std::string& path) {
    versionOf(copy, path);
    sqlite([&] {
        const std::string found = copy.execAndGet("PRAGMA integrity_check(1)").getString();
        if (found != "ok") {
            throw Failure(path + " is damaged: " + found);
        }
        if (SQLite::Statement(copy, "PRAGMA foreign_key_check").executeStep()) {
            throw Failure(path + " is damaged: a part lacks its whole");
        }
    });
}

/// Keeps a damaged file and its log under other names. Left where it is, the old log would be applied to the new file.
bool setAside(const std::string& path) {
    bool any = false;
    for (const char* end : {"", "-wal", "-journal", "-shm"}) {
        const std::string old = path + end;
        any = exists(old) || any;
        if (exists(old) && std::rename(old.c_str(), (path + ".damaged" + end).c_str()) != 0) {
            throw Failure(old + " cannot be moved: " + std::strerror(errno));
        }
    }
    return any;
}

/// Locks the file that is to be replaced, after its log was moved into it. Nothing: it is damaged, or no store.
std::optional<SQLite::Database> openReplaced(const std::string& path) {
    if (!exists(path)) {
        return std::nullopt;
    }
    try {
        if (isOpenElsewhere(path)) {
            throw Failure(Reason::kBusy, path + " is in use; stop each dsessd that has it open, and try again");
        }
        SQLite::Database database = openAlone(path);
        return isOurs(database) ? std::optional(std::move(database)) : std::nullopt;
    } catch (const SqliteError& error) {
        if (error.code() != SQLITE_NOTADB && error.code() != SQLITE_CORRUPT) {
            throw;
        }
        return std::nullopt;
    }
}

}  // namespace

void copySqliteFile(SQLite::Database& from, const std::string& path) {
    sqlite([&] {
        SQLite::Database to = openOther(path, SQLITE_OPEN_READWRITE);
        {
            SQLite::Backup copying(to, from);
            // All pages in one step: between steps a change would make the copy start again.
            if (copying.executeStep(-1) != SQLITE_DONE) {
                throw Failure(Reason::kBusy, "the data file is locked");
            }
        }
        to.exec("PRAGMA journal_mode=DELETE");  // a file that needs no other beside it, not even to be read
    });
}

bool restoreSqliteStore(const std::string& path, const std::string& file) {
    NewFile fresh(path);
    naming(file, [&] {
        SQLite::Database source = openOther(file, SQLITE_OPEN_READONLY);
        copySqliteFile(source, fresh.temporaryPath());
        SQLite::Database copy = openOther(fresh.temporaryPath(), SQLITE_OPEN_READONLY);
        check(copy, file);
    });
    const auto replaced = naming(path, [&] { return openReplaced(path); });
    const bool wasDamaged = !replaced && setAside(path);
    fresh.place();
    return wasDamaged;
}

StoreVersions upgradeSqliteStore(const std::string& path) {
    if (!exists(path)) {
        throw Failure("there is no data file " + path);
    }
    return naming(path, [&] {
        StoreVersions versions{0, kSchemaVersion};
        {
            SQLite::Database database = openOther(path, SQLITE_OPEN_READWRITE);
            versions.before = versionOf(database, path);
        }
        if (versions.before != kSchemaVersion) {
            SQLite::Database database = openAlone(path);
            versions.before = versionOf(database, path);
            raiseSchema(database, versions.before);
            execute(database, "COMMIT");
        }
        return versions;
    });
}

}  // namespace dsessd
