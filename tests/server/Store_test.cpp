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
        const auto store = open();
        const auto replacement = store->replace();
        replacement->addReplicaSet(2, 1, "set");
        replacement->addRealm(1, "east");
        for (const auto& [id, user] : kSessions) {
            EXPECT_TRUE(replacement->addSession(1, {id, user, 1}));
        }
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
    static std::string users(Store& store, std::string_view pattern, int max = -1) {
        const auto listing = store.listSessions("east", Selector::kUser, pattern, max);
        std::string found = std::to_string(listing->total());
        for (SessionRow row; listing->next(row);) {
            found += " " + std::string(row.user);
        }
        return found;
    }

    static constexpr std::pair<const char*, const char*> kSessions[] = {{"a", "a"},      {"b", "B"},  {"c", "\xC3\xA9"},
                                                                        {"d", "a%_\\["}, {"e", "-a"}, {"f", "_"}};
    const std::filesystem::path folder =
        mkdtemp((std::filesystem::temp_directory_path() / "dsessd-XXXXXX").string().data());
};

TEST_P(Stores, OrderByBytesAndMatchCharacters) {
    const auto store = open();
    EXPECT_EQ(users(*store, "*"), "6 -a B _ a a%_\\[ \xC3\xA9");
    EXPECT_EQ(users(*store, "*", 2), "6 -a B");
    EXPECT_EQ(users(*store, "?"), "4 B _ a \xC3\xA9");
    EXPECT_EQ(users(*store, "?a"), "1 -a");
    for (const char* exact : {"a%_\\[", "_", "*%**\\*", "a?_\\["}) {
        EXPECT_EQ(users(*store, exact).front(), '1') << exact;
    }
    for (const std::string_view none : {std::string_view("a\0", 2), std::string_view("%"), std::string_view("\xFF"),
                                        std::string_view("b"), std::string_view()}) {
        EXPECT_EQ(users(*store, none), "0") << none;
    }
    EXPECT_EQ(store->listSessions(std::string_view("east\0", 5), Selector::kUser, "*", -1), nullptr);
}

TEST_P(Stores, ListOneStateWhateverChanges) {
    const auto store = open(), other = open();
    const auto listing = store->listSessions("east", Selector::kSession, "*", -1);
    SessionRow row;
    EXPECT_TRUE(listing->next(row));
    EXPECT_EQ(terminate(*other, "a"), "1");
    int count = 1;
    while (listing->next(row)) {
        ++count;
    }
    EXPECT_EQ(count, 6);
}

TEST_P(Stores, NoteTheContactOfMembers) {
    const auto store = open();
    EXPECT_FALSE(store->contact("none", {"m", 1}));
    EXPECT_TRUE(store->contact("set", {"m", 1}));
    EXPECT_TRUE(store->contact("set", {"n", 2}));
    EXPECT_TRUE(store->contact("set", {"m", 3}));
    std::string members;
    const auto noted = open()->members("set");
    for (const Member& member : *noted) {
        members += member.name + std::to_string(member.lastContact);
    }
    EXPECT_EQ(members, "m3n2");
}

TEST_P(Stores, CarryOutAChangeOnce) {
    const auto one = open(), other = open();
    EXPECT_EQ(one->clusterId(), other->clusterId());
    EXPECT_EQ(one->clusterId().size(), 36U);
    const auto terminateA = [](Store& store) { return [&] { return "gone: " + terminate(store, "a"); }; };
    EXPECT_EQ(one->once({"1", "root", "x"}, terminateA(*one)), "gone: 1");
    EXPECT_EQ(other->once({"1", "root", "x"}, terminateA(*other)), "gone: 1");
    EXPECT_EQ(other->once({"2", "root", "x"}, terminateA(*other)), "gone: 0");
    EXPECT_EQ(other->once({"", "root", "x"}, terminateA(*other)), "gone: 0");
    EXPECT_THROW(one->once({"1", "mary", "x"}, terminateA(*one)), ChangeMismatch);
    EXPECT_THROW(one->once({"1", "root", "y"}, terminateA(*one)), ChangeMismatch);
    const auto refused = [&]() -> std::string { throw std::invalid_argument(terminate(*one, "b")); };
    EXPECT_THROW(one->once({"3", "root", "x"}, refused), std::invalid_argument);
    EXPECT_EQ(other->once({"3", "root", "x"}, [&] { return terminate(*other, "b"); }), "1") << "it was undone";
}

TEST_P(Stores, CarryOutAChangeOnceWhenItIsAskedForAtTwoNodesAtATime) {
    for (int change = 0; change < 20; ++change) {
        std::atomic<int> runs = 0;
        const auto ask = [&] {
            const auto store = open();
            const auto action = [&] { return "run " + std::to_string(++runs); };
            EXPECT_EQ(store->once({"race " + std::to_string(change), "root", "x"}, action), "run 1");
        };
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back(ask);
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
    }
}

INSTANTIATE_TEST_SUITE_P(OnEachEngine, Stores, testing::ValuesIn(engines()),
                         [](const auto& engine) { return *engine.param ? "PostgreSQL" : "SQLite"; });

}  // namespace
