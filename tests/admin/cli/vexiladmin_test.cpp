#include <gtest/gtest.h>

#include <string>

#include "admin/cli/common/TarnAdminConfig.h"
#include "admin/cli/vexiladmin/TarnAdminCompletion.h"
#include "admin/cli/vexiladmin/commands/StatelessCommands.h"
#include "admin/cli/vexiladmin/commands/TarnAdminLogin.h"
#include "protocol/protocol.h"
#include "runtime/qel_msg.h"
#include "tests/runtime/Support.h"

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
    EXPECT_EQ(config.sslInfo().keyfile, nullptr);
}

TEST(Completion, InsertsWhatAllCommandsThatFitHaveInCommonAndElseShowsWhatMayStandThere) {
    setenv("LC_ALL", "C.UTF-8", 1);
    qelmsg_init("vexiladmin", 0);
    TarnAdminCmdRegistry commands;
    for (TarnAdminCmd* command : std::initializer_list<TarnAdminCmd*>{
             new TarnAdminTraceGet, new TarnAdminReplicaSetList, new TarnAdminSessList, new TarnAdminSessTerminateAll,
             new TarnAdminSessTerminate, new TarnAdminRealmShow, new TarnAdminLogin}) {
        ASSERT_EQ(commands.registerCmd(command), 0U);
    }
    const KnownValues none = [](const TarnAdminCmd&) { return std::vector<std::string>(); };
    const KnownValues names = [](const TarnAdminCmd& command) {
        return std::string_view(command.format()).starts_with("realm")
                   ? std::vector<std::string>{"grün", "gräu", "blue", "a\x1B", "b c"}
                   : std::vector<std::string>();
    };
    const auto completed = [&commands](std::string_view before, const KnownValues& values) {
        const TarnAdminCompletion completion = completeLine(commands, before, values);
        std::string seen = completion.insertion.empty() ? "" : "+" + completion.insertion;
        for (const std::string& choice : completion.choices) {
            seen += "|" + choice;
        }
        return seen;
    };
    const std::pair<const char*, const char*> rows[] = {
        {" tr", "+ace "},
        {"trace", "+ "},
        {"t get", "+ "},
        {"trace get ", ""},
        {"x", ""},
        {"re", "|realm|replica"},
        {"realm l", ""},
        {"r", "+e"},
        {"r\ts ", "|list|<realm-name>"},
        {"r s", "|show|set"},
        {"r s l", "|list|<realm-name>"},
        {"r s -", "|<realm-name>"},
        {"realm show x ", ""},
        {"session t a", "+ll_sessions "},
        {"session t a\t", "|<username>"},
        {"session list -r east * ", "|<max>"},
        {"session terminate session x -", "+realm "},
        {"login bob ", "|[password]"},
        {"rep s list ", "|[-realm <realm>]"},
        {"rep s list -", "+realm "},
        {"rep s list -r ", "|<realm>"},
        {"rep s list -x ", ""},
        {"rep s list -r east ", ""},
        {"# rea", ""},
    };
    const std::pair<const char*, const char*> named[] = {
        {"realm show b", "|blue|b c"},   {"realm show bl", "+ue "},   {"realm show gr", "|grün|gräu"},
        {"realm show g", "+r"},          {"realm show a", "|a\\x1B"}, {"realm show x", ""},
        {"session t a ", "|<username>"},
    };
    for (const auto& [before, seen] : rows) {
        EXPECT_EQ(completed(before, none), seen) << before;
    }
    for (const auto& [before, seen] : named) {
        EXPECT_EQ(completed(before, names), seen) << before;
    }
    EXPECT_EQ(completed("", none).substr(0, 25), "|login <user> [password]|");
}

}  // namespace
