#include <gtest/gtest.h>

#include <new>
#include <string>
#include <vector>

#include "admin/cli/common/TarnAdminConfig.h"
#include "admin/cli/vexiladmin/TarnAdminCmdRegistry.h"
#include "runtime/qel_messages.h"
#include "tests/runtime/Support.h"

namespace {

class Command : public TarnAdminCmd {
  public:
    using TarnAdminCmd::TarnAdminCmd;
    std::uint32_t executeCmd(void* const&, olm_dsess_admin_sec_info_t const&, TarnAdminCmdTokens const&) override {
        return 0;
    }
};

TEST(Tokens, AreTheWordsBetweenBlanksTabsAndLineFeeds) {
    TarnAdminCmdTokens words;
    EXPECT_EQ(words[0], nullptr);
    EXPECT_EQ(words.set("  realm\t\tlist \n"), 0U);
    EXPECT_EQ(words.tokens(), 2);
    EXPECT_STREQ(words[0], "realm");
    EXPECT_STREQ(words[1], "list");
    EXPECT_EQ(words[2], nullptr);
    EXPECT_EQ(words[-1], nullptr);
    EXPECT_EQ(words.set("list\r"), 0U);
    EXPECT_EQ(words.tokens(), 1);
    EXPECT_STREQ(words[0], "list\r");
    EXPECT_EQ(words.set(" \t "), 0U);
    EXPECT_EQ(words[0], nullptr);
    std::string many;
    for (int i = 0; i < 500; ++i) {
        many += " " + std::to_string(i);
    }
    EXPECT_EQ(words.set(many.c_str()), 0U);
    EXPECT_EQ(words.tokens(), TarnAdminCmdTokens::kMaxTokens);
    EXPECT_STREQ(words[TarnAdminCmdTokens::kMaxTokens - 1], "127");
}

TEST(Match, GradesHowWellALineFitsAPattern) {
    const char* const replicaSetList = "replica set list [-realm <realm>]";
    const char* const login = "login <user> [password]";
    const char* const sessionList = "session list -realm <realm-name> <pattern> <max>";
    const struct {
        const char* line;
        const char* pattern;
        MatchResult grade;
    } cases[] = {
        {"replica set list", replicaSetList, MatchExact},
        {"rep set l", replicaSetList, MatchAbbreviated},
        {"replica set list -r east", replicaSetList, MatchExact},
        {"rep set list -realm -realm", replicaSetList, MatchAbbreviated},
        {"replica set list -realm", replicaSetList, MatchIncomplete},
        {"replica set list -zone east", replicaSetList, MatchNone},
        {"replica set list -realms east", replicaSetList, MatchNone},
        {"replica set list -realm east west", replicaSetList, MatchNone},
        {"replica set", replicaSetList, MatchIncomplete},
        {"replica set show -realm east", replicaSetList, MatchIncomplete},
        {"realm show", "realm show <realm-name>", MatchIncomplete},
        {"realm list", "realm show <realm-name>", MatchIncomplete},
        {"realm show [x]", "realm show <realm-name>", MatchExact},
        {"realms", "realm list", MatchNone},
        {"realm listing", "realm list", MatchIncomplete},
        {"REALM LIST", "realm list", MatchNone},
        {"login bob", login, MatchExact},
        {"login bob secret", login, MatchExact},
        {"l bob", login, MatchAbbreviated},
        {"login", login, MatchIncomplete},
        {"login bob secret more", login, MatchNone},
        {"session list -r east * 10", sessionList, MatchAbbreviated},
        {"session list east -realm * 10", sessionList, MatchIncomplete},
        {"trace get now", "trace get", MatchNone},
        {"tr set 5", "trace set <level>", MatchAbbreviated},
        {"set instance -realm", "set instance <instance>", MatchExact},
        {"", "realm list", MatchNone},
        {"", login, MatchNone},
    };
    for (const auto& [line, pattern, grade] : cases) {
        TarnAdminCmdTokens words;
        words.set(line);
        EXPECT_EQ(Command(pattern).matchCmd(words), grade) << line << " against " << pattern;
    }
}

class Config : public testing::Test {
  protected:
    std::uint32_t load(const char* entries, bool proxy = false) {
        writeFile(m_path, std::string("[tarn]\n").append(entries));
        return m_config.initialize(m_path.c_str(), proxy);
    }
    std::vector<std::string> urls(const char* instance) const {
        const auto* list = m_config.serverURLs(instance);
        return list == nullptr ? std::vector<std::string>{"none"}
                               : std::vector<std::string>(list->values, list->values + list->count);
    }

    const TempFolder m_folder;
    const std::string m_path = m_folder / "vexilclicfg.conf";
    TarnAdminConfig m_config;
};

TEST_F(Config, ComposesOneUrlPerLocationForEachInstance) {
    using List = std::vector<std::string>;
    EXPECT_EQ(urls(nullptr), List{"none"});
    ASSERT_EQ(load("location=a,b\ninstances=blue,green,blue\ntimeout=1\n"), 0U);
    EXPECT_EQ(urls("blue"), (List{"http://a/blue/services/DSessAdmin", "http://b/blue/services/DSessAdmin"}));
    EXPECT_EQ(urls("green"), (List{"http://a/green/services/DSessAdmin", "http://b/green/services/DSessAdmin"}));
    EXPECT_EQ(urls(nullptr), urls("blue"));
    EXPECT_EQ(urls("Blue"), List{"none"});
    EXPECT_EQ(urls(""), List{"none"});
    EXPECT_EQ(m_config.instanceTable().size(), 3U);
}

TEST_F(Config, IsReplacedByTheNextOneButForItsDefaultInstance) {
    const char* const ssl =
        "location=a\ninstances=x,y\ntimeout=7\nssl-keyfile=k\nssl-keyfile-stash=s\nserver-dns=d,e\n";
    ASSERT_EQ(load(ssl, true), 0U);
    EXPECT_EQ(m_config.sslInfo().server_dns.count, 2);
    ASSERT_EQ(load("location=b\ninstances=y,z\ntimeout=8\n", true), 0U);
    EXPECT_EQ(urls("y"), std::vector<std::string>{"http://b/y/services/DSessAdminProxy"});
    EXPECT_EQ(urls(nullptr), std::vector<std::string>{"none"});
    EXPECT_STREQ(m_config.defaultInstance().data(), "x");
    EXPECT_EQ(m_config.sslInfo().server_dns.values, nullptr);
    EXPECT_EQ(m_config.sslInfo().keyfile, nullptr);
    EXPECT_EQ(load("location=b\ninstances=y\ntimeout=-1\n"), kStatusInvalidNumber);
    EXPECT_EQ(m_config.shutdown(), 0U);
    EXPECT_EQ(m_config.instanceTable().size(), 0U);
}

TEST_F(Config, ThatFindsNoMemorySaysSoAndKeepsNothingHalfMade) {
    const std::string name(100, 'n');
    const std::string entries = "location=a,b\ninstances=" + name + ",y" + name + "\ntimeout=7\nssl-keyfile=k\n" +
                                "ssl-keyfile-stash=" + name + "\nserver-dns=d,e\n";
    ASSERT_EQ(load(entries.c_str()), 0U);
    int failures = 0;
    for (std::uint32_t status = kStatusNoMemory; status != 0; ++failures) {
        TarnAdminConfig config;
        try {
            const FailingNew failing(failures);
            status = config.initialize(m_path.c_str(), true);
        } catch (const std::bad_alloc&) {
            status = kStatusNoMemory;
        }
        ASSERT_TRUE(status == 0 || status == kStatusNoMemory) << std::hex << status;
    }
    EXPECT_GT(failures, 10);
}

TEST(Registry, LeavesACommandThatItCannotTakeToItsOwner) {
    TarnAdminCmdRegistry registry;
    EXPECT_EQ(registry.shutdown(), 0U);
    Command command("realm list");
    const FailingNew failing;
    EXPECT_EQ(registry.registerCmd(&command), kStatusNoMemory);
}

}  // namespace
