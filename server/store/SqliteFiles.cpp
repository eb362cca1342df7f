#include "server/store/SqliteFiles.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <limits>

#include "server/store/Store.h"

namespace dsessd {

namespace {

// https://sqlite.org/fileformat2.html: where the header of a data file has the size of a page (0x0001 is 65,536) and
// their number, and how long the headers of a log and of its frames are.
constexpr int kHeaderBytes = 100;
constexpr std::size_t kPageSizeAt = 16;
constexpr std::size_t kPageCountAt = 28;
constexpr std::int64_t kLogHeaderBytes = 32;
constexpr std::int64_t kFrameHeaderBytes = 24;

constexpr std::chrono::milliseconds kCheckEvery{100};

/// The least length of the data file: its header says how many pages have been moved to it.
std::int64_t leastDataBytes(sqlite3* connection) {
    sqlite3_file* file = nullptr;
    std::array<unsigned char, kHeaderBytes> header{};
    if (sqlite3_file_control(connection, "main", SQLITE_FCNTL_FILE_POINTER, &file) != SQLITE_OK ||
        file->pMethods->xRead(file, header.data(), kHeaderBytes, 0) != SQLITE_OK) {
        return std::numeric_limits<std::int64_t>::max();
    }
    const auto number = [&](std::size_t at, std::size_t length) {
        std::int64_t value = 0;
        for (std::size_t i = at; i < at + length; ++i) {
            value = value << 8 | header[i];
        }
        return value;
    };
    const std::int64_t pageSize = number(kPageSizeAt, 2);
    return number(kPageCountAt, 4) * (pageSize == 1 ? 65'536 : pageSize);
}

/// Whether the 32-bit number at this offset of the write-ahead log is 0. SQLite writes no 0 there, so it is a hole: it
/// comes about when somebody cuts the file short while it is in use, and SQLite then writes behind the old end.
bool isHoleAt(std::int64_t offset, sqlite3* connection) {
    sqlite3_file* file = nullptr;
    std::array<char, 4> number{};
    return sqlite3_file_control(connection, "main", SQLITE_FCNTL_JOURNAL_POINTER, &file) == SQLITE_OK &&
           file->pMethods->xRead(file, number.data(), number.size(), offset) == SQLITE_OK &&
           number == decltype(number){};
}

/// Whether the part of the write-ahead log that is in use can be read.
bool isLogWhole(sqlite3* connection) {
    // To move it to the data file means to read it. When SQLite is busy, another connection is doing just that.
    const int result = sqlite3_wal_checkpoint_v2(connection, "main", SQLITE_CHECKPOINT_PASSIVE, nullptr, nullptr);
    return result == SQLITE_OK || result == SQLITE_BUSY;
}

[[noreturn]] void wasCut(const std::string& path) {
    throw Failure(Reason::kUnavailable, path + " was cut while it was in use");
}

}  // namespace

std::int64_t SqliteFiles::look(const std::string& path, std::optional<Identity>& known) {
    struct stat found {};
    const bool isThere = ::stat(path.c_str(), &found) == 0;
    const Identity identity(found.st_dev, found.st_ino);
    if (!isThere || identity != known.value_or(identity)) {
        throw Failure(Reason::kUnavailable,
                      path + (isThere ? " was replaced" : " was removed") + " while it was in use");
    }
    known = identity;
    return found.st_size;
}

void SqliteFiles::sawLog(int pages, std::int64_t pageBytes) {
    m_newestPageAt = kLogHeaderBytes + (pages - 1) * (kFrameHeaderBytes + pageBytes);
    m_logBytes = m_newestPageAt + kFrameHeaderBytes + pageBytes;
}

void SqliteFiles::checkNowAndThen(sqlite3* connection) {
    if (m_checkedAt.load() < Clock::now() - kCheckEvery) {
        check(connection);
    }
}

void SqliteFiles::check(sqlite3* connection) {
    const MutexLock lock(m_mutex);
    m_checkedAt = Clock::time_point::min();
    const std::int64_t bytes = look(m_path, m_data);
    if (bytes < m_dataBytes && bytes < leastDataBytes(connection)) {
        wasCut(m_path);
    }
    m_dataBytes = bytes;
    const std::string log = m_path + "-wal";
    if (!m_log && ::access(log.c_str(), F_OK) != 0) {
        return;  // a new file has none yet
    }
    const std::int64_t logBytes = look(log, m_log);
    if (logBytes < m_logBytes) {
        if (!isLogWhole(connection)) {
            wasCut(log);
        }
        m_logBytes = logBytes;  // another process has emptied it
        m_lastPageAt = m_newestPageAt = 0;
    }
    // Both begin with a number: that of the format, and that of the page.
    if (m_lastPageAt != 0 && (isHoleAt(0, connection) || isHoleAt(m_lastPageAt, connection))) {
        wasCut(log);
    }
    m_lastPageAt = m_newestPageAt;
    m_checkedAt = Clock::now();
}

}  // namespace dsessd
