#include <gtest/gtest.h>

#include <cstdlib>

#include "admin/cli/commands/StatelessCommands.h"
#include "admin/cli/commands/TarnAdminLogin.h"
#include "admin/cli/language/TarnAdminCompletion.h"
#include "catalogue/qel_msg.h"

namespace {

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
