#include "server/store/Store.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include "server/store/ClusterWriter.h"
#include "tests/catalogue/Support.h"
#include "tests/server/Faults.h"

using namespace dsessd;
namespace fs = std::filesystem;

namespace {

/// Why an action fails.
template <typename Action>
std::optional<Reason> failureOf(const Action& action) {
    try {
        action();
    } catch (const Failure& failure) {
        return failure.reason();
    }
    return std::nullopt;
}

/// For each engine the folder of its server, if it has one.
std::vector<const char*> engines() {
    const char* postgres = std::getenv("DSESSD_POSTGRES");
    return postgres == nullptr ? std::vector{""} : std::vector{"", postgres};
}

struct Stores : testing::TestWithParam<const char*> {
    Stores() {
        const auto replacement = store->replace();
        replacement->addReplicaSet(2, 1, "set");
        replacement->addRealm(1, "east");
        std::vector<NewSession> sessions;
        for (const char* user : {"a", "B", "\xC3\xA9", "a%_\\[", "-a", "_"}) {
            sessions.push_back({1, std::to_string(sessions.size()), user, 1});
        }
        EXPECT_EQ(replacement->addSessions(sessions), std::nullopt);
        replacement->commit();
    }

    std::unique_ptr<Store> open() const {
        const std::string uri = "postgresql://dsessd@/postgres?host=" + std::string(GetParam());
        return Store::open(*GetParam() ? uri : folder / "cluster.db", Store::IfMissing::kCreate);
    }
    static std::string terminate(Store& store, std::string_view id) {
        return std::to_string(*store.terminateSessions("east", Selector::kSession, id));
    }
    /// The users of sessions that match a pattern, as they come.
    std::string users(std::string_view pattern, int max = -1, Selector selector = Selector::kUser) const {
        const auto listing = store->listSessions("east", selector, pattern, max);
        std::string found = std::to_string(listing->total());
        for (SessionRow row; listing->next(row);) {
            found += " " + std::string(row.user);
        }
        return found;
    }

    const TempFolder folder;
    const std::unique_ptr<Store> store = open(), other = open();
};

TEST_P(Stores, OrderByBytesAndListOneState) {
    for (const auto& [pattern, max, found] :
         std::initializer_list<std::tuple<std::string_view, int, const char*>>{{"*", -1, "6 -a B _ a a%_\\[ \xC3\xA9"},
                                                                               {"*", 2, "6 -a B"},
                                                                               {"*%**\\*", -1, "1 a%_\\["},
                                                                               {{"a\0", 2}, -1, "0"},
                                                                               {"\xFF", -1, "0"}}) {
        EXPECT_EQ(users(pattern, max), found) << pattern;
    }
    const auto listing = store->listSessions("east", Selector::kSession, "*", -1);
    EXPECT_EQ(terminate(*other, "0"), "1");
    int count = 0;
    for (SessionRow row; listing->next(row);) {
        ++count;
    }
    EXPECT_EQ(count, 6);
}

TEST_P(Stores, CarryOutAChangeOnce) {
    EXPECT_EQ(store->clusterId(), other->clusterId());
    const auto terminateIt = [](Store& at) { return [&] { return "gone: " + terminate(at, "0"); }; };
    EXPECT_EQ(store->once({"1", "root", "x"}, terminateIt(*store)), "gone: 1");
    EXPECT_EQ(other->once({"1", "root", "x"}, terminateIt(*other)), "gone: 1");
    EXPECT_EQ(other->once({"2", "root", "x"}, terminateIt(*other)), "gone: 0");
    EXPECT_EQ(other->once({"", "root", "x"}, terminateIt(*other)), "gone: 0");
    EXPECT_EQ(failureOf([&] { store->once({"1", "mary", "x"}, terminateIt(*store)); }), Reason::kOtherChange);
    EXPECT_EQ(failureOf([&] { store->once({"1", "root", "y"}, terminateIt(*store)); }), Reason::kOtherChange);
    const auto refused = [&]() -> std::string { throw std::invalid_argument(terminate(*store, "1")); };
    EXPECT_THROW(store->once({"3", "root", "x"}, refused), std::invalid_argument);
    EXPECT_EQ(other->once({"3", "root", "x"}, [&] { return terminate(*other, "1"); }), "1") << "it was undone";
    EXPECT_EQ(store->terminateSessions("east", Selector::kUser, "-a"), 1);
    EXPECT_EQ(users("*"), "3 _ a%_\\[ \xC3\xA9");
}

TEST_P(Stores, EndAnyNumberOfAUsersSessionsAtOnce) {
    const auto load = [&] {
        std::vector<NewSession> sessions{{1, "k0", "abe", 1}, {1, "m0", "zoe", 1}};
        while (sessions.size() < 2502) {
            sessions.push_back({1, "m" + std::to_string(sessions.size()), "many", 1});
        }
        const auto replacement = store->replace();
        replacement->addRealm(1, "east");
        EXPECT_EQ(replacement->addSessions(sessions), std::nullopt);
        replacement->commit();
    };
    load();
    EXPECT_EQ(store->terminateSessions("east", Selector::kUser, "many"), 2500);
    for (bool more = true; more; more = other->removeEnded()) {
        EXPECT_EQ(users("*"), "2 abe zoe");
        EXPECT_EQ(users("*", 1), "2 abe");
        EXPECT_EQ(users("?*"), "2 abe zoe");
        EXPECT_EQ(users("m?", -1, Selector::kSession), "1 zoe");
        EXPECT_EQ(terminate(*other, "m2500"), "0");
        EXPECT_EQ(store->refreshSessions("east", Selector::kSession, "m2500", 2), 0);
        EXPECT_EQ(store->refreshSessions("east", Selector::kUser, "many", 2), 0);
        EXPECT_EQ(store->terminateSessions("east", Selector::kUser, "many"), 0);
        std::string text;
        ClusterWriter writer([&](std::string_view piece) { text += piece; });
        store->giveTo(writer);
        EXPECT_EQ(text.find("many"), text.npos);
    }
    load();
    EXPECT_EQ(store->terminateSessions("east", Selector::kUser, "many"), 2500);
    load();
    EXPECT_FALSE(other->removeEnded());
    EXPECT_EQ(users("m*", 1), "2500 many");
}

TEST_P(Stores, CarryOutAChangeOnceWhenItIsAskedForAtSeveralNodesAtATime) {
    for (int change = 0; change < 20; ++change) {
        std::atomic<int> runs = 0;
        std::vector<std::thread> threads;
        for (int node = 0; node < 4; ++node) {
            threads.emplace_back([&] {
                const auto action = [&] { return "run " + std::to_string(++runs); };
                EXPECT_EQ(open()->once({"race " + std::to_string(change), "root", "x"}, action), "run 1");
            });
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
}

TEST_P(Stores, RememberAChangeForAnHourOfWhichTheTimeOfDaySaysNothing) {
    int runs = 0;
    const auto runsOf = [&](const char* id) {
        return store->once({id, "root", "x"}, [&] { return std::to_string(++runs); });
    };
    EXPECT_EQ(runsOf("first"), "1");
    for (const int hours : {2, -2}) {
        g_faults.dayAhead = std::chrono::hours(hours);
        EXPECT_EQ(runsOf(hours > 0 ? "ahead" : "behind"), hours > 0 ? "2" : "3");
        EXPECT_EQ(runsOf("first"), "1") << hours;
    }
    g_faults.clockAhead = std::chrono::minutes(59);
    EXPECT_EQ(runsOf("late"), "4");
    EXPECT_EQ(runsOf("first"), "1");
    g_faults.clockAhead = std::chrono::minutes(80);
    EXPECT_EQ(runsOf("next"), "5");
    EXPECT_EQ(runsOf("late"), "4");
    EXPECT_EQ(runsOf("first"), "6") << "or the records would grow for ever";
    g_faults.clockAhead = g_faults.dayAhead = std::chrono::seconds(0);
}

/// A store in a file, and what can be done to it from outside.
struct DataFiles : testing::Test {
    std::string change(
        const char* id, const std::function<void()>& meanwhile = [] {}) {
        const auto lease = pool->take();
        return lease->once({id, "root", "x"}, [&] {
            meanwhile();
            return lease->changeKey(1).label;
        });
    }
    std::string key() { return pool->take()->cluster().key.label; }
    /// The key that is there after a crash now.
    std::string keyAfterCrash() const {
        const auto copy = folder / "copy";
        for (const char* end : {"", "-wal"}) {
            fs::copy_file(data + end, copy + end, fs::copy_options::overwrite_existing);
        }
        return Store::open(copy, Store::IfMissing::kFail)->cluster().key.label;
    }
    /// As another process does that means well.
    void execute(const char* sql) const {
        sqlite3* other = nullptr;
        EXPECT_EQ(sqlite3_open(data.c_str(), &other), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(other, sql, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(other);
        sqlite3_close(other);
    }

    const TempFolder folder;
    const std::string data = folder / "cluster.db";
    const std::unique_ptr<Store> first = Store::open(data, Store::IfMissing::kCreate);
    std::unique_ptr<StorePool> pool = std::make_unique<StorePool>(data);
};

TEST_F(DataFiles, AreNotReadAgainAfterAFailedCommitBeforeAnotherOneHasSucceeded) {
    const std::string before = change("1");
    g_faults.noSync = true;
    EXPECT_EQ(failureOf([&] { change("2"); }), Reason::kUncertain);
    EXPECT_NE(keyAfterCrash(), before) << "nobody can say that nothing was changed";
    EXPECT_EQ(failureOf([&] { key(); }), Reason::kUnavailable);
    g_faults.noSync = false;
    EXPECT_EQ(key(), before);
    EXPECT_EQ(keyAfterCrash(), before);
    const std::string after = change("2");
    EXPECT_EQ(change("2"), after);
    EXPECT_EQ(keyAfterCrash(), after);
}

TEST_F(DataFiles, TakeNoChangeOnceTheyAreRemovedReplacedOrCut) {
    const auto cutTo = [](std::uintmax_t percent) {
        return [percent](const std::string& path) { fs::resize_file(path, fs::file_size(path) * percent / 100); };
    };
    const auto replace = [](const std::string& path) {
        fs::copy_file(path, path + "2");
        fs::rename(path + "2", path);
    };
    const auto remove = [](const std::string& path) { fs::remove(path); };
    for (const char* end : {"", "-wal"}) {
        for (const std::function<void(const std::string&)>& damage :
             std::initializer_list<std::function<void(const std::string&)>>{remove, replace, cutTo(0), cutTo(50)}) {
            for (const bool early : {true, false}) {
                const std::string path = folder / "other.db";
                Store::open(path, Store::IfMissing::kCreate);
                pool = std::make_unique<StorePool>(path);
                change("1");
                const std::string whole = path + end;
                if (early) {
                    damage(whole);
                    EXPECT_EQ(failureOf([&] { change("2"); }), Reason::kUnavailable) << whole;
                    EXPECT_EQ(failureOf([&] { key(); }), Reason::kUnavailable) << whole;
                } else {
                    EXPECT_EQ(failureOf([&] { change("2", [&] { damage(whole); }); }), Reason::kUncertain) << whole;
                }
                pool.reset();
                for (const char* each : {"", "-wal", "-shm"}) {
                    fs::remove(path + each);
                }
            }
        }
    }
}

TEST_F(DataFiles, AreTrustedWhateverAnotherProcessDoesRightly) {
    change("1");
    fs::rename(data, data + "2");
    EXPECT_EQ(failureOf([&] { change("2"); }), Reason::kUnavailable);
    fs::rename(data + "2", data);
    for (const char* sql : {"PRAGMA wal_checkpoint(TRUNCATE)", "VACUUM", "PRAGMA wal_checkpoint = TRUNCATE",
                            "CREATE TABLE x AS SELECT zeroblob(100000)", "DROP TABLE x; VACUUM"}) {
        execute(sql);
        const std::string label = change(sql);
        EXPECT_EQ(key(), label) << sql;
    }
}

INSTANTIATE_TEST_SUITE_P(OnEachEngine, Stores, testing::ValuesIn(engines()),
                         [](const auto& engine) { return *engine.param ? "PostgreSQL" : "SQLite"; });

}  // namespace
