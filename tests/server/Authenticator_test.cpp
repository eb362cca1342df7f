#include "server/Authenticator.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <thread>

#include "server/Password.h"

using namespace dsessd;
using Outcome = Authenticator::Outcome;

namespace {

std::atomic<int> g_syncs = 0;

struct StoreTest : testing::Test {
    StoreTest() { put("SECRET", Role::kChange); }
    ~StoreTest() override { std::filesystem::remove_all(folder); }

    std::unique_ptr<Store> open() const { return Store::open(folder / "cluster.db", Store::IfMissing::kCreate); }
    void put(const char* password, Role role) const { store->putAdministrator({"root", hashPassword(password), role}); }
    Outcome verify(Authenticator& authenticator, const char* password = "SECRET", const char* loginId = "id",
                   const char* user = "root") const {
        return authenticator.verify(*store, {user, password, loginId}).outcome;
    }

    const std::filesystem::path folder =
        mkdtemp((std::filesystem::temp_directory_path() / "dsessd-XXXXXX").string().data());
    const std::unique_ptr<Store> store = open();
};
using Authentication = StoreTest;

TEST_F(StoreTest, HasOnTheDiskWhatItAcknowledged) {
    const auto replacement = store->replace();
    replacement->addRealm(1, "east");
    replacement->addSession(1, {"s", "mallory", 1});
    replacement->commit();
    for (const std::function<void()>& change : std::initializer_list<std::function<void()>>{
             [&] { store->changeKey(1); }, [&] { store->refreshSessions("east", Selector::kUser, "mallory", 2); },
             [&] { store->terminateSessions("east", Selector::kSession, "s"); }, [&] { store->setTraceLevel(3); },
             [&] { put("OTHER", Role::kRead); }, [&] { store->removeAdministrator("root"); }}) {
        const int before = g_syncs;
        change();
        EXPECT_GT(g_syncs, before);
    }
}

TEST_F(Authentication, HashesOnceForOneLoginAndAnewForAnythingElse) {
    const std::string tooLong(kMaxPasswordBytes + 1, 'x');
    const std::tuple<const char*, const char*, const char*, Outcome> steps[] = {
        {"root", "SECRET", "a", Outcome::kVerified},  {"root", "SECRET", "a", Outcome::kRemembered},
        {"root", "SECRET", "b", Outcome::kVerified},  {"root", "secret", "a", Outcome::kRefused},
        {"root", nullptr, "a", Outcome::kRefused},    {"root", tooLong.c_str(), "a", Outcome::kRefused},
        {"nobody", "SECRET", "a", Outcome::kRefused}, {"root", "SECRET", "a", Outcome::kRemembered}};
    Authenticator authenticator;
    unsigned hashes = 0;
    for (const auto& [user, password, loginId, outcome] : steps) {
        EXPECT_EQ(verify(authenticator, password, loginId, user), outcome) << hashes;
        hashes += outcome == Outcome::kRemembered ? 0 : 1;
        EXPECT_EQ(authenticator.hashCount(), hashes) << "an unknown name must cost a hash as well";
    }
}

TEST_F(Authentication, ForgetsAnAdministratorWhoWasChangedOrRemoved) {
    Authenticator authenticator;
    EXPECT_EQ(verify(authenticator), Outcome::kVerified);
    put("SECRET", Role::kRead);
    EXPECT_EQ(verify(authenticator), Outcome::kVerified) << "same password, new hash";
    EXPECT_EQ(authenticator.verify(*store, {"root", "SECRET", "id"}).role, Role::kRead);
    store->removeAdministrator("root");
    EXPECT_EQ(verify(authenticator), Outcome::kRefused);
}

TEST_F(Authentication, ForgetsWithTimeAndWhenItsTableIsFull) {
    Authenticator forgetful({.rememberFor = std::chrono::seconds(-1)});
    EXPECT_EQ(verify(forgetful), Outcome::kVerified);
    EXPECT_EQ(verify(forgetful), Outcome::kVerified);
    Authenticator small({.remembered = 1});
    for (const auto& [loginId, outcome] : {std::pair("a", Outcome::kVerified),
                                           {"b", Outcome::kVerified},
                                           {"b", Outcome::kRemembered},
                                           {"a", Outcome::kVerified}}) {
        EXPECT_EQ(verify(small, "SECRET", loginId), outcome);
    }
}

TEST_F(Authentication, TurnsAwayWhoWouldWaitTooLongButNotWhoIsRemembered) {
    Authenticator authenticator({.hashesAtOnce = 1, .waiting = 2});
    ASSERT_EQ(verify(authenticator), Outcome::kVerified);
    std::atomic<unsigned> busy = 0;
    std::vector<std::jthread> attackers(12);
    for (std::jthread& attacker : attackers) {
        attacker = std::jthread([&] {
            const auto own = open();
            busy += authenticator.verify(*own, {"root", "wrong", "id"}).outcome == Outcome::kBusy ? 1 : 0;
        });
    }
    while (busy == 0 && authenticator.hashCount() <= attackers.size()) {
        EXPECT_EQ(verify(authenticator), Outcome::kRemembered);
    }
    attackers.clear();
    EXPECT_GT(busy, 0U);
    EXPECT_EQ(authenticator.hashCount(), 1 + 12 - busy);
}

TEST(Password, MatchesItsOwnHashOnly) {
    const std::string hash = hashPassword("josé");
    EXPECT_EQ(hash.substr(0, 3), "$y$");
    EXPECT_NE(hash, hashPassword("josé")) << "salted";
    EXPECT_TRUE(passwordMatches("josé", hash));
    EXPECT_FALSE(passwordMatches("jose", hash) || passwordMatches("josé ", hash) || passwordMatches("", hash));
    for (const char* broken : {"", "*0", "*1", "x", "$y$", "$y$j9T$abc"}) {
        EXPECT_FALSE(passwordMatches("josé", broken)) << broken;
    }
    EXPECT_EQ(hashPassword(std::string(kMaxPasswordBytes + 1, 'x').c_str()), "");
}

}  // namespace

/// What SQLite asks the system for when something has to be on the disk.
extern "C" __attribute__((visibility("default"))) int fdatasync(int) {
    ++g_syncs;
    return 0;
}
