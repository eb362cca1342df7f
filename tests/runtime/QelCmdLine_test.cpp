#include "runtime/QelCmdLine.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

/// The program's name and each option asked for, as "name=value " or, when it is absent, "!name ".
std::string parse(std::vector<const char*> arguments, std::initializer_list<std::string> asked) {
    QelCmdLine line;
    EXPECT_EQ(line.initialize(static_cast<int>(arguments.size()), arguments.data()), 0U);
    QelStringRef name;
    line.getCmdName(&name);
    std::string seen = std::string(name.view()) + ": ";
    for (const std::string& option : asked) {
        QelStringRef value;
        const bool found = line.findOption(QelString(option), &value) == 0;
        EXPECT_EQ(line.findOption(QelString(option), nullptr) == 0, found);
        seen += (found ? option + "=" + std::string(value.view()) : "!" + option) + " ";
    }
    return seen;
}

TEST(QelCmdLine, FindsOptionsAndTheirValues) {
    EXPECT_EQ(parse({"vexiladmin"}, {"help", ""}), "vexiladmin: !help ! ");
    EXPECT_EQ(parse({"/usr/bin/vexiladmin", "-command", "realm list", "-help"}, {"command", "help", "comm"}),
              "vexiladmin: command=realm list help= !comm ");
    EXPECT_EQ(parse({"", "-bogus", "-help"}, {"bogus", "help"}), ": bogus= help= ");
    EXPECT_EQ(parse({"v", "-file", "", "-file", "b", "--help"}, {"file", "help", "-help"}), "v: file= !help -help= ");
    EXPECT_EQ(parse({"v", "-file", "a", "stray", "-", "-x", "-"}, {"file", "stray", "a", "x", ""}),
              "v: file=a !stray !a x= ! ");
}

TEST(QelCmdLine, NamesEachUndeclaredOptionOnce) {
    const char* const arguments[] = {"v", "-file", "a", "-bogus", "1", "-odd", "-bogus", "2", "-Help"};
    QelCmdLine line;
    ASSERT_EQ(line.initialize(std::size(arguments), arguments), 0U);
    line.validated(std::string_view("file"));
    line.validated(std::string_view("help"));
    const auto& invalid = line.invalidOptions();
    EXPECT_EQ(invalid.size(), 3U);
    EXPECT_EQ(invalid.find(QelString("bogus"))->view(), "1");
    EXPECT_NE(invalid.find(QelString("odd")), nullptr);
    EXPECT_NE(invalid.find(QelString("Help")), nullptr);
    line.validated(std::string_view("bogus"));
    EXPECT_EQ(line.invalidOptions().size(), 2U);
}

TEST(QelCmdLine, NeedsAProgramName) {
    const char* const none[] = {nullptr};
    EXPECT_EQ(QelCmdLine().initialize(0, none), kStatusCommandLine);
    EXPECT_EQ(QelCmdLine().initialize(1, none), kStatusCommandLine);
    EXPECT_EQ(QelCmdLine().initialize(1, nullptr), kStatusCommandLine);
}

}  // namespace
