#include "server/Store.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <fstream>

#include "tests/server/Support.h"

using namespace dsessd;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

TEST(Store, KnowsWhichUsersMatchAPattern) {
    struct Case {
        const char* pattern;
        const char* user;
        bool matches;
    };
    const Case cases[] = {
        {"*", "anything", true},    {"mal*", "mallory", true},
        {"mal*", "Mallory", false}, {"*lory", "mallory", true},
        {"m*l*y", "mallory", true}, {"m*x*y", "mallory", false},
        {"?", "ł", true},           {"?", "李伟", false},
        {"??", "李伟", true},       {"jos?", "josé", true},
        {"jos?", "jos", false},     {"ната*", "наталья", true},
        {"a[b]c", "a[b]c", true},   {"a[b]c", "abc", false},
        {"[a-z]", "m", false},      {"[^x]", "[^x]", true},
        {"[", "[", true},           {"]", "]", true},
        {"[[]", "[[]", true},       {"100%", "100%", true},
        {"100%", "1000", false},    {"a_c", "abc", false},
        {"a_c", "a_c", true},       {"a\\*", "a\\b", true},
        {"'", "'", true},           {"**m**", "mallory", true},
        {"", "mallory", false},     {"mallory", "mallory2", false},
        {"*[*", "a[b", true},       {"*a*a*a*a*a*a*a*b", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa", false},
    };
    const DataFile file;
    const auto store = file.open();
    for (const Case& c : cases) {
        Store::Replacement cluster(*store);
        ASSERT_TRUE(cluster.addRealm(1, "east"));
        ASSERT_TRUE(cluster.addSession(1, {"id", c.user, 1}));
        cluster.commit();
        EXPECT_EQ(!idsOf(*store, c.pattern).empty(), c.matches) << c.pattern << " for " << c.user;
    }
}

TEST(Store, ListsInOrderAndCountsWhatItLeavesOut) {
    const DataFile file;
    file.load(kSmallCluster);
    const auto store = file.open();
    int total = 0;
    EXPECT_THAT(idsOf(*store, "*"), ElementsAre("s1", "s2", "s4", "s3"));
    EXPECT_THAT(idsOf(*store, "m*", 2, Selector::kUser, &total), ElementsAre("s2", "s4"));
    EXPECT_EQ(total, 3);
    EXPECT_THAT(idsOf(*store, "m*", 0, Selector::kUser, &total), IsEmpty());
    EXPECT_EQ(total, 3);
    EXPECT_THAT(idsOf(*store, "s?", -1, Selector::kSession), ElementsAre("s1", "s2", "s4", "s3"));
    EXPECT_EQ(store->listSessions("nowhere", Selector::kUser, "*", -1), nullptr);
}

TEST(Store, AListingShowsOneStateWhateverChangesMeanwhile) {
    const DataFile file;
    file.load(kSmallCluster);
    const auto reader = file.open();
    const auto writer = file.open();
    const auto listing = reader->listSessions("east", Selector::kUser, "*", -1);
    EXPECT_EQ(writer->terminateSessions("east", Selector::kUser, "mallory"), 3);
    SessionRow row;
    int rows = 0;
    while (listing->next(row)) {
        ++rows;
    }
    EXPECT_EQ(rows, 4);
    EXPECT_THAT(idsOf(*writer, "*"), ElementsAre("s1"));
}

TEST(Store, ChangesTakeValuesLiterally) {
    const DataFile file;
    file.load(kSmallCluster);
    const auto store = file.open();
    EXPECT_EQ(store->terminateSessions("east", Selector::kUser, "*"), 0);
    EXPECT_EQ(store->refreshSessions("east", Selector::kSession, "s?", 99), 0);
    EXPECT_EQ(store->refreshSessions("east", Selector::kUser, "mallory", 5), 3);
    EXPECT_THAT(idsOf(*store, "mallory"), ElementsAre("s2", "s3", "s4")) << "equal times now";
    EXPECT_EQ(store->terminateSessions("east", Selector::kSession, "s3"), 1);
    EXPECT_EQ(store->terminateSessions("empty", Selector::kSession, "s2"), 0) << "of another realm";
    EXPECT_EQ(store->terminateSessions("nowhere", Selector::kSession, "s2"), std::nullopt);
}

TEST(Store, KeepsKeysSettingsAndAdministratorsAcrossOpening) {
    const DataFile file;
    const Key first = file.open()->cluster().key;
    EXPECT_THAT(first.label, HasSubstr("key-"));
    EXPECT_EQ(first.previousTime, 0);
    const Key second = file.open()->changeKey(first.time + 7);
    EXPECT_NE(second.label, first.label);
    EXPECT_EQ(second.previousTime, first.time);
    EXPECT_EQ(file.open()->cluster().key.label, second.label);

    file.open()->setTraceLevel(7);
    EXPECT_TRUE(file.open()->putAdministrator({"root", "h1", Role::kChange}));
    EXPECT_FALSE(file.open()->putAdministrator({"root", "h2", Role::kRead}));
    file.load(kSmallCluster);
    EXPECT_EQ(file.open()->traceLevel(), 7) << "a load leaves it alone";
    EXPECT_EQ(file.open()->administrator("root")->passwordHash, "h2");
    EXPECT_EQ(file.open()->administrator("Root"), std::nullopt);
    EXPECT_TRUE(file.open()->removeAdministrator("root"));
    EXPECT_FALSE(file.open()->removeAdministrator("root"));
}

TEST(Store, MakesAFileForItsOwnerOnly) {
    const DataFile file;
    EXPECT_THROW(Store::open(file.path(), Store::IfMissing::kFail), StoreError);
    EXPECT_FALSE(std::filesystem::exists(file.path()));
    const auto store = file.open();
    store->setTraceLevel(2);
    for (const char* suffix : {"", "-wal", "-shm"}) {
        struct stat info {};
        ASSERT_EQ(stat((file.path() + suffix).c_str(), &info), 0);
        EXPECT_EQ(info.st_mode & 0777U, 0600U) << suffix;
    }
}

TEST(Store, RefusesFilesThatAreNotItsOwn) {
    const auto problemWith = [](const DataFile& file) -> std::string {
        try {
            file.open();
        } catch (const StoreError& error) {
            return error.what();
        }
        return "none";
    };
    const DataFile text, foreign, newer;
    std::ofstream(text.path()) << std::string(5000, 'x');
    EXPECT_THAT(problemWith(text), HasSubstr("is not a data file of dsessd"));
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
    Database(foreign.path(), flags).execute("CREATE TABLE songs (name TEXT)");
    EXPECT_THAT(problemWith(foreign), HasSubstr("is not a data file of dsessd"));
    EXPECT_EQ(Database(foreign.path(), flags).queryInteger("SELECT count(*) FROM sqlite_schema"), 1)
        << "left as it was";
    newer.open();
    Database(newer.path(), flags).execute("PRAGMA user_version=2");
    EXPECT_THAT(problemWith(newer), HasSubstr("has schema version 2"));
}
