#include <gtest/gtest.h>

#include <string>

#include "admin/cli/commands/StatelessCommands.h"
#include "admin/cli/commands/TarnAdminLogin.h"
#include "admin/cli/config/TarnAdminConfig.h"
#include "admin/cli/language/TarnAdminCompletion.h"
#include "catalogue/qel_msg.h"
#include "protocol/protocol.h"
#include "tests/catalogue/Support.h"

namespace {

struct Config : testing::Test {
    std::uint32_t load(const std::string& entries, bool proxy) {
        writeFile(path, "[tarn]\n" + entries);
        return config.initialize(path.c_str(), proxy);
    }
    std::string url(const char* instance) const {
        const auto* list = config.serverURLs(instance);
        return list == nullptr ? "none" : list->values[0];
    }

    const TempFolder folder;
    const std::string path = folder / "vexilclicfg.conf";
    TarnAdminConfig config;
};

TEST_F(Config, IsReplacedByTheNextOneButForItsDefaultInstance) {
    EXPECT_EQ(url(nullptr), "none");
    ASSERT_EQ(load("location=a\ninstances=x\ntimeout=7\nserver-dns=d\nssl-keyfile=k\nssl-keyfile-stash=s\n", false),
              0U);
    EXPECT_EQ(url(nullptr), std::string("https://a/x") + protocol::kServicePath);
    ASSERT_EQ(load("location=b\ninstances=y\ntimeout=8\n", true), 0U);
    EXPECT_EQ(url("y"), std::string("http://b/y") + protocol::kProxyServicePath);
    EXPECT_EQ(url(nullptr), "none");
    EXPECT_STREQ(config.defaultInstance().data(), "x");
    EXPECT_EQ(config.sslInfo().server_dns.values, nullptr);
}

TEST(Completion, InsertsWhatCommandsThatFitHaveInCommonAndElseShowsWhatMayStandThere) {
    setenv("LC_ALL", "C.UTF-8", 1);
    qelmsg_init("vexiladmin", 0);
    TarnAdminCmdRegistry commands;
    for (const auto create :
         {createCommand<TarnAdminTraceSet>, createCommand<TarnAdminReplicaSetList>, createCommand<TarnAdminSessList>,
          createCommand<TarnAdminSessTerminate>, createCommand<TarnAdminRealmShow>}) {
        ASSERT_EQ(commands.registerCmd(create().release()), 0U);
    }
    ASSERT_EQ(commands.registerCmd(new TarnAdminLogin), 0U);
    const KnownValues levels = [](std::string_view placeholder) {
        return placeholder == "<level>" ? std::vector<std::string>{"grün", "gräu", "blue", "a\x1B", "b c"}
                                        : std::vector<std::string>();
    };
    const std::pair<const char*, const char*> rows[] = {
        {" tr", "+ace "},
        {"trace", "+ "},
        {"realm show x ", ""},
        {"re", "|realm|replica"},
        {"r\ts ", "|list|<realm-name>"},
        {"login bob ", "|[password]"},
        {"rep s list ", "|[-realm <realm>]"},
        {"rep s list -", "+realm "},
        {"rep s list -r ", "|<realm>"},
        {"trace set b", "|blue|b c"},
        {"trace set bl", "+ue "},
        {"trace set gr", "|grün|gräu"},
        {"trace set a", "|a\\x1B"},
    };
    for (const auto& [before, seen] : rows) {
        const TarnAdminCompletion completion = completeLine(commands, before, levels);
        std::string found = completion.insertion.empty() ? "" : "+" + completion.insertion;
        for (const std::string& choice : completion.choices) {
            found += "|" + choice;
        }
        EXPECT_EQ(found, seen) << before;
    }
}

}  // namespace
