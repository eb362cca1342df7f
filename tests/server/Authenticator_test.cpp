#include "server/service/Authenticator.h"

#include <gtest/gtest.h>

#include "server/log/Text.h"
#include "server/service/Password.h"
#include "tests/catalogue/Support.h"
#include "tests/server/Faults.h"

using namespace dsessd;
using Outcome = Authenticator::Outcome;

namespace {

struct Authentication : testing::Test {
    Authentication() { store->putAdministrator({"root", hashPassword("SECRET"), Role::kChange}); }

    Outcome verify(Authenticator& authenticator, const char* user, const char* password, const char* loginId) const {
        return authenticator.verify(*store, {user, password, loginId}).outcome;
    }

    const TempFolder folder;
    const std::unique_ptr<Store> store = Store::open(folder / "cluster.db", Store::IfMissing::kCreate);
};

TEST_F(Authentication, HashesOnceForOneLoginAndAnewForAnythingElse) {
    const std::string tooLong(kMaxPasswordBytes + 1, 'x');
    const std::tuple<const char*, const char*, const char*, Outcome> steps[] = {
        {"root", "SECRET", "a", Outcome::kVerified},  {"root", "SECRET", "a", Outcome::kRemembered},
        {"root", "secret", "a", Outcome::kRefused},   {"root", nullptr, "a", Outcome::kRefused},
        {"root", "SECRET", "b", Outcome::kVerified},  {"root", tooLong.c_str(), "a", Outcome::kRefused},
        {"nobody", "SECRET", "a", Outcome::kRefused}, {"root", "SECRET", "b", Outcome::kRemembered},
        {"root", "SECRET", "a", Outcome::kVerified}};
    Authenticator authenticator({.remembered = 1});
    unsigned hashes = 0;
    for (const auto& [user, password, loginId, outcome] : steps) {
        EXPECT_EQ(verify(authenticator, user, password, loginId), outcome) << hashes;
        hashes += outcome == Outcome::kRemembered ? 0 : 1;
        EXPECT_EQ(authenticator.hashCount(), hashes) << "an unknown name must cost a hash as well";
    }
    Authenticator forgetful({.rememberFor = std::chrono::seconds(-1)});
    EXPECT_EQ(verify(forgetful, "root", "SECRET", "a"), Outcome::kVerified);
    EXPECT_EQ(verify(forgetful, "root", "SECRET", "a"), Outcome::kVerified);
}

TEST_F(Authentication, TakesNothingForADigestOrAHashThatCouldNotBeComputed) {
    Authenticator authenticator;
    for (const char* password : {"SECRET", "GUESS", "SECRET"}) {
        for (std::atomic<bool>* fault : {&g_faults.noDigest, &g_faults.noHash}) {
            *fault = true;
            EXPECT_ANY_THROW(verify(authenticator, "root", password, "a")) << password;
            *fault = false;
        }
    }
    EXPECT_EQ(verify(authenticator, "root", "GUESS", "a"), Outcome::kRefused);
    EXPECT_EQ(verify(authenticator, "root", "SECRET", "a"), Outcome::kVerified);
}

TEST_F(Authentication, LastsOnTheDisk) {
    const int before = g_faults.syncs;
    store->removeAdministrator("root");
    EXPECT_GT(g_faults.syncs, before);
}

TEST(Password, MatchesItsOwnHashOnly) {
    const std::string hash = hashPassword("josé");
    EXPECT_EQ(hash.substr(0, 3), "$y$");
    EXPECT_NE(hash, hashPassword("josé")) << "salted";
    EXPECT_TRUE(passwordMatches("josé", hash));
    for (const std::string& other :
         {hashPassword("jose"), std::string(), std::string("*0"), std::string("$y$j9T$abc")}) {
        EXPECT_FALSE(passwordMatches("josé", other)) << other;
    }
}

TEST(Text, MakesOneHarmlessLine) {
    EXPECT_EQ(harmless("josé\n2026 forged\x1B[2J\x7F\xC2\x9B\u202E\xFF"),
              "josé\\x0A2026 forged\\x1B[2J\\x7F\\u{009B}\\u{202E}\\xFF");
    EXPECT_EQ(harmless("李伟李伟", 5), "李伟...") << "cut between characters";
}

}  // namespace
