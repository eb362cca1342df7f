#include "runtime/qel_msg.h"

#include <gtest/gtest.h>
#include <libintl.h>

#include <clocale>
#include <map>
#include <set>

#include "Support.h"
#include "runtime/qel_messages.h"

namespace {

std::string format(std::uint32_t identifier, ...) {
    std::va_list arguments;
    va_start(arguments, identifier);
    std::string text = qel_msg_vformat(identifier, arguments);
    va_end(arguments);
    return text;
}

std::string english(std::uint32_t identifier, ...) {
    std::va_list arguments;
    va_start(arguments, identifier);
    std::string text = qel_msg_vformat_default(identifier, arguments);
    va_end(arguments);
    return text;
}

TEST(Messages, HaveIdentifiersOfTheirOwnAndPlaceholdersForTheirArguments) {
    std::set<std::uint32_t> identifiers;
    for (const QelMessage& message : qel_msg_table()) {
        EXPECT_TRUE(identifiers.insert(message.identifier).second) << message.name;
        EXPECT_NE(message.identifier & 0xFF, 0U) << message.name << " would be an exit status of success";
        const std::string text = message.text;
        const std::string kinds = message.kinds;
        char prefix[16];
        std::snprintf(prefix, sizeof prefix, "%08X ", message.identifier);
        EXPECT_EQ(text.starts_with(prefix), message.isFailure) << message.name;

        std::size_t next = 0;
        std::set<std::size_t> used;
        for (std::size_t at = text.find('%'); at != std::string::npos; at = text.find('%', at + 2)) {
            if (text.at(at + 1) == '%') {
                continue;
            }
            const bool isNumbered = text.at(at + 1) >= '1' && text.at(at + 1) <= '9';
            const std::size_t index = isNumbered ? static_cast<std::size_t>(text[at + 1] - '1') : next++;
            ASSERT_LT(index, kinds.size()) << message.name;
            EXPECT_EQ(text.substr(at + 1, isNumbered ? 3 : 1),
                      (isNumbered ? std::string{text[at + 1], '$'} : "") + (kinds[index] == 'd' ? 'd' : 's'))
                << message.name;
            used.insert(index);
        }
        EXPECT_EQ(used.size(), kinds.size()) << message.name;
        EXPECT_EQ(kinds.find_first_not_of("sde"), std::string::npos) << message.name;
    }
    EXPECT_GT(identifiers.size(), 50U);
}

TEST(Messages, AreFilledWithTheirArguments) {
    EXPECT_EQ(format(kMsgInvalidValue, "100%s"), "38C5213E The value given for 100%s is not valid.");
    EXPECT_EQ(format(kMsgInvalidValue, nullptr), "38C5213E The value given for  is not valid.");
    EXPECT_EQ(format(kMsgTraceLevel, INT_MIN), "The server's trace level is -2147483648.");
    EXPECT_EQ(format(kMsgCommandFileOpen, "a", ENOENT),
              "38C520A2 The command file a cannot be opened: No such file or directory (2).\n");
    EXPECT_EQ(format(0x38C5FFFF), "38C5FFFF The catalogue has no text for this status.");
    EXPECT_EQ(format(0x1A), "0000001A The catalogue has no text for this status.");
}

TEST(Messages, HaveAnUntranslatedDefaultThatIsWrittenWhenMemoryIsExhausted) {
    std::uint32_t status = 1;
    EXPECT_STREQ(qel_msg_get_default_msg(kMsgUserSelector2, &status), "user name");
    EXPECT_EQ(status, 0U);
    EXPECT_EQ(qel_msg_get_default_msg(0x38C5FFFF, &status), nullptr);
    EXPECT_NE(status, 0U);

    char buffer[200] = "";
    std::FILE* stream = fmemopen(buffer, sizeof buffer, "w");
    qel_fprintf(stream, kMsgTraceLevel, 7);
    {
        const FailingNew noMemory;
        qel_fprintf(stream, kStatusNoMemory);
        qel_fprintf(stream, 0x38C5FFFF);
    }
    std::fclose(stream);
    EXPECT_STREQ(buffer,
                 "The server's trace level is 7."
                 "38C52097 Memory is exhausted. Free some on this host, then try again.");
}

/// A catalogue file as gettext reads it (GNU gettext manual, "The Format of GNU MO Files").
std::string catalogue(const std::map<std::string, std::string>& translations) {
    const auto count = static_cast<std::uint32_t>(translations.size());
    const std::uint32_t start = 28 + 16 * count;
    std::vector<std::uint32_t> words = {0x950412DE, 0, count, 28, 28 + 8 * count, 0, start};
    std::string texts;
    const auto add = [&](const std::string& text) {
        words.push_back(static_cast<std::uint32_t>(text.size()));
        words.push_back(start + static_cast<std::uint32_t>(texts.size()));
        texts.append(text.c_str(), text.size() + 1);
    };
    for (const auto& [source, translation] : translations) {
        add(source);
    }
    for (const auto& [source, translation] : translations) {
        add(translation);
    }
    return std::string(reinterpret_cast<const char*>(words.data()), start) + texts;
}

TEST(Messages, AreTranslatedUnlessTheTranslationDoesNotFit) {
    const std::pair<std::uint32_t, const char*> translations[] = {
        {kMsgInvalidValue, "100%% ungültig: %1$s"},
        {kMsgKeyWithPrevious, "%3$s < %2$s (%1$s, %3$s)"},
        {kMsgFileRead, "%2$s: %1$s\n"},
        // These do not fit.
        {kMsgFileSyntax, "%s %s %s"},
        {kMsgTraceLevel, "%s"},
        {kMsgKey, "%s, %3$s"},
        {kMsgNoRealms, "%s%s%s%s%s%s%s%s%s%s"},
        {kMsgReplicaSetRecord, "%2$s"},
        {kMsgFileOpen, "%1$s %n %2$s"},
        {kMsgSessionsHeading, "%d %d %"},
        {kMsgSession, "%s %s %s %1$"},
    };
    std::map<std::string, std::string> texts;
    for (const auto& [identifier, translation] : translations) {
        const std::string source = qel_msg_get_default_msg(identifier, nullptr);
        texts[source.starts_with("38C5") ? source.substr(9) : source] = translation;
    }
    const TempFolder folder;
    std::filesystem::create_directories(folder / "xx/LC_MESSAGES");
    writeFile(folder / "xx/LC_MESSAGES/vexiladmin.mo", catalogue(texts));
    const auto expectEnglish = [](std::uint32_t identifier, auto... arguments) {
        EXPECT_EQ(format(identifier, arguments...), english(identifier, arguments...));
    };

    setenv("LC_ALL", "C.UTF-8", 1);
    setenv("LANGUAGE", "xx", 1);
    qelmsg_init("program", 0);
    bindtextdomain("vexiladmin", (folder / "").c_str());
    EXPECT_EQ(format(kMsgInvalidValue, "max"), "38C5213E 100% ungültig: max");
    EXPECT_EQ(format(kMsgKeyWithPrevious, "k", "now", "then"), "then < now (k, then)");
    EXPECT_EQ(format(kMsgFileRead, "a", EISDIR), "38C54044 Is a directory (21): a\n");
    EXPECT_EQ(english(kMsgInvalidValue, "max"), "38C5213E The value given for max is not valid.");
    expectEnglish(kMsgFileSyntax, "a", 7, "b");
    expectEnglish(kMsgTraceLevel, 3);
    expectEnglish(kMsgKey, "k", "now");
    expectEnglish(kMsgNoRealms);
    expectEnglish(kMsgReplicaSetRecord, "a", "b");
    expectEnglish(kMsgFileOpen, "a", EACCES);
    expectEnglish(kMsgSessionsHeading, 2, 1);
    expectEnglish(kMsgSession, "a", "b", "c");
    unsetenv("LANGUAGE");
}

TEST(Messages, KeepBytesInTheCLocaleAndAreInTheProgramsName) {
    for (const char* name : {"C", "POSIX", "xx_XX.none", "C.UTF-8"}) {
        setenv("LC_ALL", name, 1);
        std::setlocale(LC_ALL, "C");
        qelmsg_init("/usr/bin/vexil", 0);
        EXPECT_STREQ(std::setlocale(LC_CTYPE, nullptr), "C.UTF-8") << name;
    }
    qelmsg_init(nullptr, 0);
    EXPECT_STREQ(qel_msg_program_name(), "vexil");
}

}  // namespace
