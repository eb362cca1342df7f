#include "server/Store.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <thread>

using namespace dsessd;

namespace {

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
    ~Stores() override { std::filesystem::remove_all(folder); }

    std::unique_ptr<Store> open() const {
        const std::string uri = "postgresql://dsessd@/postgres?host=" + std::string(GetParam());
        return Store::open(*GetParam() ? uri : (folder / "cluster.db").string(), Store::IfMissing::kCreate);
    }
    static std::string terminate(Store& store, std::string_view id) {
        return std::to_string(*store.terminateSessions("east", Selector::kSession, id));
    }
    /// The users that match a pattern, as they come.
    std::string users(std::string_view pattern, int max = -1) const {
        const auto listing = store->listSessions("east", Selector::kUser, pattern, max);
        std::string found = std::to_string(listing->total());
        for (SessionRow row; listing->next(row);) {
            found += " " + std::string(row.user);
        }
        return found;
    }

    const std::filesystem::path folder =
        mkdtemp((std::filesystem::temp_directory_path() / "dsessd-XXXXXX").string().data());
    const std::unique_ptr<Store> store = open(), other = open();
};

TEST_P(Stores, OrderByBytesMatchCharactersAndListOneState) {
    for (const auto& [pattern, max, found] :
         std::initializer_list<std::tuple<std::string_view, int, const char*>>{{"*", -1, "6 -a B _ a a%_\\[ \xC3\xA9"},
                                                                               {"*", 2, "6 -a B"},
                                                                               {"?", -1, "4 B _ a \xC3\xA9"},
                                                                               {"?a", -1, "1 -a"},
                                                                               {"a%_\\[", -1, "1 a%_\\["},
                                                                               {"*%**\\*", -1, "1 a%_\\["},
                                                                               {"_", -1, "1 _"},
                                                                               {{"a\0", 2}, -1, "0"},
                                                                               {"%", -1, "0"},
                                                                               {"\xFF", -1, "0"},
                                                                               {"b", -1, "0"},
                                                                               {"", -1, "0"}}) {
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
    EXPECT_THROW(store->once({"1", "mary", "x"}, terminateIt(*store)), ChangeMismatch);
    EXPECT_THROW(store->once({"1", "root", "y"}, terminateIt(*store)), ChangeMismatch);
    const auto refused = [&]() -> std::string { throw std::invalid_argument(terminate(*store, "1")); };
    EXPECT_THROW(store->once({"3", "root", "x"}, refused), std::invalid_argument);
    EXPECT_EQ(other->once({"3", "root", "x"}, [&] { return terminate(*other, "1"); }), "1") << "it was undone";
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

INSTANTIATE_TEST_SUITE_P(OnEachEngine, Stores, testing::ValuesIn(engines()),
                         [](const auto& engine) { return *engine.param ? "PostgreSQL" : "SQLite"; });

}  // namespace
