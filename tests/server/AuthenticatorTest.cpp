#include "server/Authenticator.h"

#include <thread>

#include "server/Password.h"
#include "tests/server/Support.h"

using namespace dsessd;
using Outcome = Authenticator::Outcome;

namespace {

class AuthenticatorTest : public testing::Test {
  protected:
    AuthenticatorTest() : store_(file_.open()) { put("root", "SECRET", Role::change); }

    void put(const char* name, const char* password, Role role) {
        store_->putAdministrator({name, hashPassword(password), role});
    }
    Outcome verify(Authenticator& authenticator, const char* user, const char* password, const char* loginId = "id") {
        return authenticator.verify(*store_, {user, password, loginId}).outcome;
    }

    DataFile file_;
    std::unique_ptr<Store> store_;
};

}  // namespace

TEST_F(AuthenticatorTest, HashesOnceForOneLoginAndAnewForAnythingElse) {
    Authenticator authenticator;
    const struct {
        const char* user;
        const char* password;
        const char* loginId;
        Outcome outcome;
        unsigned hashes;
    } steps[] = {
        {"root", "SECRET", "a", Outcome::verified, 1},   {"root", "SECRET", "a", Outcome::remembered, 1},
        {"root", "SECRET", "b", Outcome::verified, 2},   {"root", "secret", "a", Outcome::refused, 3},
        {"root", nullptr, "a", Outcome::refused, 4},     {"root", "", "a", Outcome::refused, 5},
        {"Root", "SECRET", "a", Outcome::refused, 6},    {"nobody", "SECRET", "a", Outcome::refused, 7},
        {"nobody", "SECRET", "a", Outcome::refused, 8},  {"", nullptr, "", Outcome::refused, 9},
        {"root", "SECRET", "a", Outcome::remembered, 9},
    };
    for (const auto& step : steps) {
        EXPECT_EQ(verify(authenticator, step.user, step.password, step.loginId), step.outcome) << step.hashes;
        EXPECT_EQ(authenticator.hashCount(), step.hashes) << "an unknown name must cost a hash as well";
    }
    const std::string tooLong(kMaxPasswordBytes + 1, 'x');
    EXPECT_EQ(verify(authenticator, "root", tooLong.c_str()), Outcome::refused);
    EXPECT_EQ(authenticator.hashCount(), 10U);
}

TEST_F(AuthenticatorTest, ForgetsAnAdministratorWhoWasChangedOrRemoved) {
    Authenticator authenticator;
    const auto outcome = [&] { return verify(authenticator, "root", "SECRET"); };
    EXPECT_EQ(outcome(), Outcome::verified);
    put("root", "OTHER", Role::change);
    EXPECT_EQ(outcome(), Outcome::refused);
    put("root", "SECRET", Role::read);
    EXPECT_EQ(outcome(), Outcome::verified) << "same password, new hash";
    EXPECT_EQ(authenticator.verify(*store_, {"root", "SECRET", "id"}).role, Role::read);
    store_->removeAdministrator("root");
    EXPECT_EQ(outcome(), Outcome::refused);
}

TEST_F(AuthenticatorTest, ForgetsWithTimeAndWhenItsTableIsFull) {
    Authenticator::Limits limits;
    limits.rememberFor = std::chrono::seconds(-1);
    Authenticator forgetful(limits);
    EXPECT_EQ(verify(forgetful, "root", "SECRET"), Outcome::verified);
    EXPECT_EQ(verify(forgetful, "root", "SECRET"), Outcome::verified);
    limits = {};
    limits.remembered = 2;
    Authenticator small(limits);
    for (const char* loginId : {"a", "b", "c"})
        EXPECT_EQ(verify(small, "root", "SECRET", loginId), Outcome::verified);
    EXPECT_EQ(verify(small, "root", "SECRET", "c"), Outcome::remembered);
    EXPECT_EQ(verify(small, "root", "SECRET", "a"), Outcome::verified);
}

TEST_F(AuthenticatorTest, TurnsAwayWhoWouldWaitTooLongButNotWhoIsRemembered) {
    Authenticator::Limits limits;
    limits.hashesAtOnce = 1;
    limits.waiting = 2;
    Authenticator authenticator(limits);
    ASSERT_EQ(verify(authenticator, "root", "SECRET"), Outcome::verified);
    std::atomic<int> busy = 0;
    std::vector<std::thread> attackers;
    attackers.reserve(12);
    for (int i = 0; i < 12; ++i)
        attackers.emplace_back([&] {
            const auto store = file_.open();
            for (int tries = 0; tries < 3; ++tries)
                if (authenticator.verify(*store, {"root", "wrong", "id"}).outcome == Outcome::busy)
                    ++busy;
        });
    for (int i = 0; i < 50; ++i)
        EXPECT_EQ(verify(authenticator, "root", "SECRET"), Outcome::remembered);
    for (std::thread& attacker : attackers)
        attacker.join();
    EXPECT_GT(busy, 0);
    EXPECT_EQ(authenticator.hashCount(), 1U + 12 * 3 - busy);
}

TEST(Password, MatchesItsOwnHashOnly) {
    const std::string hash = hashPassword("josé");
    EXPECT_EQ(hash.substr(0, 3), "$y$");
    EXPECT_NE(hash, hashPassword("josé")) << "salted";
    EXPECT_TRUE(passwordMatches("josé", hash));
    for (const char* other : {"", "jose", "josé ", "*"})
        EXPECT_FALSE(passwordMatches(other, hash)) << other;
    for (const char* broken : {"", "*0", "*1", "x", "$y$", "$y$j9T$abc"})
        EXPECT_FALSE(passwordMatches("josé", broken)) << broken;
    EXPECT_EQ(hashPassword(std::string(kMaxPasswordBytes + 1, 'x').c_str()), "");
}
