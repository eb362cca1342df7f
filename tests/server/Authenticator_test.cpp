#include "server/Authenticator.h"

#include <thread>

#include "server/Password.h"
#include "tests/server/Support.h"

using namespace dsessd;
using Outcome = Authenticator::Outcome;

namespace {

class AuthenticatorTest : public testing::Test {
  protected:
    AuthenticatorTest() : m_store(m_file.open()) { put("root", "SECRET", Role::kChange); }

    void put(const char* name, const char* password, Role role) {
        m_store->putAdministrator({name, hashPassword(password), role});
    }
    Outcome verify(Authenticator& authenticator, const char* user, const char* password, const char* loginId = "id") {
        return authenticator.verify(*m_store, {user, password, loginId}).outcome;
    }

    DataFile m_file;
    std::unique_ptr<Store> m_store;
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
        {"root", "SECRET", "a", Outcome::kVerified, 1},   {"root", "SECRET", "a", Outcome::kRemembered, 1},
        {"root", "SECRET", "b", Outcome::kVerified, 2},   {"root", "secret", "a", Outcome::kRefused, 3},
        {"root", nullptr, "a", Outcome::kRefused, 4},     {"root", "", "a", Outcome::kRefused, 5},
        {"Root", "SECRET", "a", Outcome::kRefused, 6},    {"nobody", "SECRET", "a", Outcome::kRefused, 7},
        {"nobody", "SECRET", "a", Outcome::kRefused, 8},  {"", nullptr, "", Outcome::kRefused, 9},
        {"root", "SECRET", "a", Outcome::kRemembered, 9},
    };
    for (const auto& step : steps) {
        EXPECT_EQ(verify(authenticator, step.user, step.password, step.loginId), step.outcome) << step.hashes;
        EXPECT_EQ(authenticator.hashCount(), step.hashes) << "an unknown name must cost a hash as well";
    }
    const std::string tooLong(kMaxPasswordBytes + 1, 'x');
    EXPECT_EQ(verify(authenticator, "root", tooLong.c_str()), Outcome::kRefused);
    EXPECT_EQ(authenticator.hashCount(), 10U);
}

TEST_F(AuthenticatorTest, ForgetsAnAdministratorWhoWasChangedOrRemoved) {
    Authenticator authenticator;
    const auto outcome = [&] { return verify(authenticator, "root", "SECRET"); };
    EXPECT_EQ(outcome(), Outcome::kVerified);
    put("root", "OTHER", Role::kChange);
    EXPECT_EQ(outcome(), Outcome::kRefused);
    put("root", "SECRET", Role::kRead);
    EXPECT_EQ(outcome(), Outcome::kVerified) << "same password, new hash";
    EXPECT_EQ(authenticator.verify(*m_store, {"root", "SECRET", "id"}).role, Role::kRead);
    m_store->removeAdministrator("root");
    EXPECT_EQ(outcome(), Outcome::kRefused);
}

TEST_F(AuthenticatorTest, ForgetsWithTimeAndWhenItsTableIsFull) {
    Authenticator::Limits limits;
    limits.rememberFor = std::chrono::seconds(-1);
    Authenticator forgetful(limits);
    EXPECT_EQ(verify(forgetful, "root", "SECRET"), Outcome::kVerified);
    EXPECT_EQ(verify(forgetful, "root", "SECRET"), Outcome::kVerified);
    limits = {};
    limits.remembered = 2;
    Authenticator small(limits);
    for (const char* loginId : {"a", "b", "c"}) {
        EXPECT_EQ(verify(small, "root", "SECRET", loginId), Outcome::kVerified);
    }
    EXPECT_EQ(verify(small, "root", "SECRET", "c"), Outcome::kRemembered);
    EXPECT_EQ(verify(small, "root", "SECRET", "a"), Outcome::kVerified);
}

TEST_F(AuthenticatorTest, TurnsAwayWhoWouldWaitTooLongButNotWhoIsRemembered) {
    Authenticator::Limits limits;
    limits.hashesAtOnce = 1;
    limits.waiting = 2;
    Authenticator authenticator(limits);
    ASSERT_EQ(verify(authenticator, "root", "SECRET"), Outcome::kVerified);
    std::atomic<int> busy = 0;
    std::vector<std::thread> attackers;
    attackers.reserve(12);
    for (int i = 0; i < 12; ++i) {
        attackers.emplace_back([&] {
            const auto store = m_file.open();
            for (int tries = 0; tries < 3; ++tries) {
                if (authenticator.verify(*store, {"root", "wrong", "id"}).outcome == Outcome::kBusy) {
                    ++busy;
                }
            }
        });
    }
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(verify(authenticator, "root", "SECRET"), Outcome::kRemembered);
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
    for (const char* other : {"", "jose", "josé ", "*"}) {
        EXPECT_FALSE(passwordMatches(other, hash)) << other;
    }
    for (const char* broken : {"", "*0", "*1", "x", "$y$", "$y$j9T$abc"}) {
        EXPECT_FALSE(passwordMatches("josé", broken)) << broken;
    }
    EXPECT_EQ(hashPassword(std::string(kMaxPasswordBytes + 1, 'x').c_str()), "");
}
