#include "server/Authenticator.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <thread>

#include "server/Password.h"

using namespace dsessd;
using Outcome = Authenticator::Outcome;

namespace {

struct AuthenticatorTest : testing::Test {
    AuthenticatorTest() { put("SECRET", Role::kChange); }
    ~AuthenticatorTest() override { std::filesystem::remove_all(folder); }

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

TEST_F(AuthenticatorTest, HashesOnceForOneLoginAndAnewForAnythingElse) {
    const std::string tooLong(kMaxPasswordBytes + 1, 'x');
    const struct {
        const char *user, *password, *loginId;
        Outcome outcome;
    } steps[] = {
        {"root", "SECRET", "a", Outcome::kVerified},       {"root", "SECRET", "a", Outcome::kRemembered},
        {"root", "SECRET", "b", Outcome::kVerified},       {"root", "secret", "a", Outcome::kRefused},
        {"root", nullptr, "a", Outcome::kRefused},         {"root", tooLong.c_str(), "a", Outcome::kRefused},
        {"root", tooLong.c_str(), "a", Outcome::kRefused}, {"nobody", "SECRET", "a", Outcome::kRefused},
        {"nobody", "SECRET", "a", Outcome::kRefused},      {"root", "SECRET", "a", Outcome::kRemembered},
    };
    Authenticator authenticator;
    unsigned hashes = 0;
    for (const auto& [user, password, loginId, outcome] : steps) {
        EXPECT_EQ(verify(authenticator, password, loginId, user), outcome) << hashes;
        hashes += outcome == Outcome::kRemembered ? 0 : 1;
        EXPECT_EQ(authenticator.hashCount(), hashes) << "an unknown name must cost a hash as well";
    }
}

TEST_F(AuthenticatorTest, ForgetsAnAdministratorWhoWasChangedOrRemoved) {
    Authenticator authenticator;
    EXPECT_EQ(verify(authenticator), Outcome::kVerified);
    put("OTHER", Role::kChange);
    EXPECT_EQ(verify(authenticator), Outcome::kRefused);
    put("SECRET", Role::kRead);
    EXPECT_EQ(verify(authenticator), Outcome::kVerified) << "same password, new hash";
    EXPECT_EQ(authenticator.verify(*store, {"root", "SECRET", "id"}).role, Role::kRead);
    store->removeAdministrator("root");
    EXPECT_EQ(verify(authenticator), Outcome::kRefused);
}

TEST_F(AuthenticatorTest, ForgetsWithTimeAndWhenItsTableIsFull) {
    Authenticator forgetful({.rememberFor = std::chrono::seconds(-1)});
    EXPECT_EQ(verify(forgetful), Outcome::kVerified);
    EXPECT_EQ(verify(forgetful), Outcome::kVerified);
    Authenticator small({.remembered = 2});
    for (const char* loginId : {"a", "b", "c"}) {
        EXPECT_EQ(verify(small, "SECRET", loginId), Outcome::kVerified);
    }
    EXPECT_EQ(verify(small, "SECRET", "c"), Outcome::kRemembered);
    EXPECT_EQ(verify(small, "SECRET", "a"), Outcome::kVerified);
}

TEST_F(AuthenticatorTest, TurnsAwayWhoWouldWaitTooLongButNotWhoIsRemembered) {
    Authenticator authenticator({.hashesAtOnce = 1, .waiting = 2});
    ASSERT_EQ(verify(authenticator), Outcome::kVerified);
    std::atomic<int> busy = 0;
    std::vector<std::thread> attackers;
    for (int i = 0; i < 12; ++i) {
        attackers.emplace_back([&] {
            const auto own = open();
            for (int tries = 0; tries < 3; ++tries) {
                busy += authenticator.verify(*own, {"root", "wrong", "id"}).outcome == Outcome::kBusy ? 1 : 0;
            }
        });
    }
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(verify(authenticator), Outcome::kRemembered);
    }
    for (std::thread& attacker : attackers) {
        attacker.join();
    }
    EXPECT_GT(busy, 0);
    EXPECT_EQ(authenticator.hashCount(), 1U + 12 * 3 - busy);
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
