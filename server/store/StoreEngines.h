/// The engines behind Store::open(), and what they share.
///
/// Both have their record of changes in the table `changes`, with a row for each change of the last hour:
///
///     id      4f6c2a9e-...  by the client; "local-..." for what `dsessd admin` did
///     user    root          who asked, in PostgreSQL `user_name`; empty for a local act
///     digest  qL1x...       of what was asked for (Request::digest)
///     answer  "result":{"count":2}
///                           the end of what was answered; of a local act, its line for the log
///     number  1742          counts up; the oldest rows have the lowest
///
/// Whoever asks for the change of a row again gets the row's answer, and nothing is done.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "server/store/Store.h"

namespace SQLite {
class Database;
}

namespace dsessd {

inline constexpr int kDefaultTraceLevel = 1;
/// An hour for which the record of a change lives, and ten minutes for those that are being committed meanwhile.
inline constexpr std::chrono::minutes kKeepChanges{70};
/// How many old records of changes each change removes at most.
inline constexpr int kForgetAtOnce = 100;
/// Where fewer sessions than this match an identifier, a listing finds all of them and sorts them by user. To read the
/// realm in the order of users instead may mean passing millions that do not match.
inline constexpr std::int32_t kFewSessions = 10'000;

std::unique_ptr<Store> openSqliteStore(const std::string& path, Store::IfMissing ifMissing);
/// See Store::backUp(), restore() and upgrade().
void copySqliteFile(SQLite::Database& from, const std::string& path);
bool restoreSqliteStore(const std::string& path, const std::string& file);
StoreVersions upgradeSqliteStore(const std::string& path);

std::unique_ptr<Store> openPostgresStore(const std::string& uri, Store::IfMissing ifMissing, Store::Say say);
StoreVersions upgradePostgresStore(const std::string& uri, Store::Say say);
std::string nameOfPostgres(const std::string& uri);

/// Gives sessions on by the hundred.
class SessionBatches {
  public:
    explicit SessionBatches(ClusterTaker& taker) : m_taker(taker) {}
    void add(std::int64_t realm, std::string_view id, std::string_view user, Seconds time);
    /// To be called after the last session.
    void flush();

  private:
    ClusterTaker& m_taker;
    std::vector<NewSession> m_sessions;
};

/// Knows which records of changes are old. The time of day does not tell, since clocks are set; but a record that was
/// there when this object began to count has been there for as long as the object's own clock says.
class ChangeAges {
  public:
    /// Records are numbered as they come, the newest now with `newest`. Up to the number that this gives, all are old.
    [[nodiscard]] std::int64_t oldUpTo(std::int64_t newest);

  private:
    std::optional<std::int64_t> m_seen;
    std::chrono::steady_clock::time_point m_seenAt;
    std::int64_t m_old = 0;
};

/// Gives a name or pattern as the engines may look for it: itself when it is text (UTF-8 without NUL), else an empty
/// name, which nothing bears. The engines would disagree on other bytes.
std::string_view sought(std::string_view name);
std::string newKeyLabel(Seconds now);
std::string newUuid();
/// Throws a Failure that says what a store of another schema version needs.
[[noreturn]] void failForVersion(const std::string& store, std::int64_t found, int known);
/// A database is none of ours to copy.
[[noreturn]] void failForOtherTools(const std::string& store);

/// Between these lie the identifiers of local acts in the record of changes. No client's change counts as one, since
/// its user has a name.
inline constexpr std::array<std::string_view, 2> kLocalActs{"local-", "local."};
/// Throws Reason::kOtherChange unless user and digest are those recorded.
void checkSameChange(const ChangeRecord& change, std::string_view user, std::string_view digest);

}  // namespace dsessd
