#include "server/Store.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <thread>

using namespace dsessd;

namespace {

struct Stores : testing::Test {
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

    std::unique_ptr<Store> open() const { return Store::open(folder / "cluster.db", Store::IfMissing::kCreate); }
    static std::string terminate(Store& store, std::string_view id) {
        return std::to_string(*store.terminateSessions("east", Selector::kSession, id));
    }

    static constexpr std::pair<const char*, const char*> kSessions[] = {{"a", "a"}, {"b", "b"}, {"c", "c"}};
    const std::filesystem::path folder =
        mkdtemp((std::filesystem::temp_directory_path() / "dsessd-XXXXXX").string().data());
};

TEST_F(Stores, CarryOutAChangeOnce) {
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

TEST_F(Stores, CarryOutAChangeOnceWhenItIsAskedForAtTwoNodesAtATime) {
    for (int change = 0; change < 20; ++change) {
        std::atomic<int> runs = 0;
        const auto ask = [&] {
            const auto store = open();
            const auto action = [&] { return "run " + std::to_string(++runs); };
            EXPECT_EQ(store->once({std::to_string(change), "root", "x"}, action), "run 1");
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

}  // namespace
