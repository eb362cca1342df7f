#include "runtime/qel_msg.h"

#include <gmock/gmock.h>
#include <libintl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <clocale>
#include <cstdarg>
#include <iterator>
#include <memory>
#include <set>

#include "Support.h"
#include "runtime/qel_messages.h"
#include "runtime/qel_stanza.h"
#include "runtime/qel_svc.h"

using namespace std::string_view_literals;
using testing::EndsWith;
using testing::MatchesRegex;

static std::pair<std::string_view, const char*> g_translated;
static std::string g_syslog;
static bool g_isSyslogThere = true;

// Stand in for the C library's.
extern "C" char* dgettext(const char* domain, const char* text) noexcept {
    EXPECT_STREQ(domain, "vexiladmin");
    return const_cast<char*>(text == g_translated.first ? g_translated.second : text);
}
static void keep(int priority, const char* format, std::va_list arguments) {
    EXPECT_STREQ(format, "%s");
    g_syslog += std::to_string(priority) + " " + va_arg(arguments, const char*) + "\n";
}
extern "C" void syslog(int priority, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    keep(priority, format, arguments);
    va_end(arguments);
}
// The same in a build with checked calls. NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    keep(priority, format, arguments);
    va_end(arguments);
}
extern "C" int connect(int /*socket*/, const sockaddr* /*address*/, socklen_t /*length*/) {
    return g_isSyslogThere ? 0 : -1;
}

namespace {

template <class... Arguments>
std::string format(std::uint32_t identifier, Arguments... arguments) {
    char* text = nullptr;
    std::size_t length = 0;
    std::FILE* stream = open_memstream(&text, &length);
    qel_fprintf(stream, identifier, arguments...);
    std::fclose(stream);
    const std::unique_ptr<char, decltype(&std::free)> owner(text, std::free);
    return {text, length};
}

TEST(Messages, HaveIdentifiersOfTheirOwnAndPlaceholdersForTheirArguments) {
    std::set<std::uint32_t> identifiers;
    for (const QelMessage& message : qel_msg_table()) {
        EXPECT_TRUE(identifiers.insert(message.identifier).second) << message.name;
        EXPECT_NE(message.identifier & 0xFF, 0U) << message.name << " would be an exit status of success";
        const std::string kinds = message.kinds, text = message.text;
        std::set<std::size_t> used;
        for (std::size_t at = text.find('%'); at != std::string::npos; at = text.find('%', at + 1)) {
            const std::string place = text.substr(at + 1, 3);
            const bool isNumbered = place.ends_with("$s");
            const std::size_t index = isNumbered ? static_cast<std::size_t>(place[0] - '1') : used.size();
            EXPECT_EQ(isNumbered ? 's' : place[0], kinds.at(index) == 'd' ? 'd' : 's') << message.name;
            used.insert(index);
        }
        EXPECT_EQ(used.size(), kinds.size()) << message.name;
    }
}

TEST(Messages, AreFilledWithTheirArguments) {
    EXPECT_EQ(format(kMsgUnknownOption, nullptr),
              "38C5319C The option - is not known. Use -help for the options there are.");
    EXPECT_EQ(format(kMsgCommandFileOpen, "a", ENOENT),
              "38C520A2 The command file a cannot be opened: No such file or directory (2).\n");
    EXPECT_EQ(format(0x1A), "0000001A The catalogue has no text for this status.");
    const std::string longText(10'000, 'a');
    EXPECT_NE(format(kMsgInvalidValue, longText.c_str()).find(" for " + longText + " is "), std::string::npos);
}

TEST(Messages, AreTranslatedUnlessTheTranslationDoesNotFit) {
    const auto translated = [](std::uint32_t identifier, const char* translation, auto... arguments) {
        const std::string english = format(identifier, arguments...);
        const std::string source = qel_msg_get_default_msg(identifier, nullptr);
        g_translated = {std::string_view(source).substr(source.starts_with("38C5") ? 9 : 0), translation};
        const std::string text = format(identifier, arguments...);
        return text == english ? "English" : text;
    };
    EXPECT_EQ(translated(kMsgInvalidValue, "100%% ungültig: %1$s", "max"), "38C5213E 100% ungültig: max");
    EXPECT_EQ(translated(kMsgKeyWithPrevious, "%3$s < %2$s (%1$s, %3$s)", "k", "now", "old"), "old < now (k, old)");
    EXPECT_EQ(translated(kMsgFileRead, "%2$s: %1$s\n", "a", EISDIR), "38C54044 Is a directory (21): a\n");
    EXPECT_EQ(translated(kMsgKey, "%s, %3$s", "k", "now"), "English");
    EXPECT_EQ(translated(kMsgNoRealms, "%s%s%s%s%s%s%s%s%s%s"), "English");
    EXPECT_EQ(translated(kMsgReplicaSetRecord, "%2$s", "a", "b"), "English");
    EXPECT_EQ(translated(kMsgSessionsHeading, "%d %s", 2, 1), "English");
    EXPECT_EQ(translated(kMsgSession, "%s %s %s %1$", "a", "b", "c"), "English");
}

TEST(Messages, ShowAStatusOnOneLineWithoutArguments) {
    const auto shown = [](std::uint32_t status, const char* translation) {
        g_translated = {std::string_view(qel_msg_get_default_msg(status, nullptr)).substr(9), translation};
        testing::internal::CaptureStderr();
        qel_print_status(stderr, status);
        return testing::internal::GetCapturedStderr();
    };
    EXPECT_EQ(shown(kMsgInvalidNumber, "%2$s:\n%1$s, 100%%, %3$s\n\n"), "38C532BE ...: ..., 100%, ...\n");
    EXPECT_EQ(shown(kMsgCommandFileOpen, "%s"), "38C520A2 The command file ... cannot be opened: ....\n");
    EXPECT_EQ(shown(kMsgFileSyntax, "%s%d%s%n"), "38C54046 The file ... is malformed at line ...: ....\n");
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

/// The service log and a stanza file, in a folder of their own.
struct Files : testing::Test {
    Files() {
        qelmsg_init("/bin/vexil", 0);
        setenv("QEL_SVC_LOG", log.c_str(), 1);
    }
    /// What was logged since the last call.
    std::string takeLog() const {
        std::ifstream file(log);
        std::filesystem::remove(log);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    template <class... Inserts>
    static void report(const char* insertFormat, std::uint32_t severity, std::uint32_t message, Inserts... inserts) {
        qel_svc_printf_withfile(QelSvcHandle::kClient, "/src/a.cpp", 1, insertFormat, kSvcGeneral, severity, message,
                                inserts...);
    }
    /// The entries of a stanza, "none" when it is absent, or what the service log says when the file cannot be opened.
    std::string read(const char* stanza, std::uint32_t expected = 0) const {
        std::uint32_t status = 1;
        const std::unique_ptr<qelStanzaFile, decltype(&qelStzFileClose)> file(qelStzFileOpen(path.c_str(), &status),
                                                                              qelStzFileClose);
        EXPECT_EQ(status, expected);
        if (file == nullptr) {
            return takeLog();
        }
        qelStzMoveStanza(file.get(), "x");
        std::string seen = qelStzMoveStanza(file.get(), stanza) == 0 ? "" : "none";
        for (; qelStzEntryName(file.get()) != nullptr; qelStzMoveNextEntry(file.get())) {
            seen += "(" + std::string(qelStzEntryName(file.get())) + "=" + qelStzEntryValue(file.get()) + ")";
        }
        return seen;
    }

    const TempFolder folder;
    std::string log = folder / "log", path = folder / "file";
};

using ServiceLog = Files;
using Stanzas = Files;

TEST_F(ServiceLog, AppendsOneLineAnEntryToTheFileNamed) {
    report("%s%s%s", kSvcError, kMsgEntryMissing, "tarn", "/Zoë\n\x1B[m", nullptr);
    g_translated = {"The file %s cannot be opened: %s.\n", "%s ? %s"};
    report("%s%d", kSvcErrorExit, kMsgFileOpen, "x", ENOENT);
    EXPECT_EQ(std::filesystem::status(log).permissions(), std::filesystem::perms(0600));
    EXPECT_THAT(
        takeLog(),
        MatchesRegex("[-0-9]{10}T[:0-9]{8}Z vexil\\[" + std::to_string(getpid()) +
                     "\\] client a.cpp:1 38C5209F Stanza \\[tarn\\] of /Zoë\\\\x0A\\\\x1B\\[m has [^\n]* entry \\. "
                     "Add[^\n]*\n[^\n]* 38C54042 The file x cannot be opened: No such file or directory \\(2\\)\\.\n"));
}

TEST_F(ServiceLog, WritesTheBareMessageForInsertsThatAreNotItsOwn) {
    for (const char* inserts : {"", "%s", "%d%s", "%s%d%d"}) {
        report(inserts, kSvcError, kMsgFileOpen);
        EXPECT_THAT(takeLog(), EndsWith(" a.cpp:1 38C54042 The file %s cannot be opened: %s.\n")) << inserts;
    }
    report("%s", kSvcError, 0x38C5FFFF, nullptr);
    EXPECT_THAT(takeLog(), EndsWith(" a.cpp:1 38C5FFFF The catalogue has no text for this status.\n"));
}

TEST_F(ServiceLog, SharesThePositionOfStandardError) {
    setenv("QEL_SVC_LOG", "/dev/stderr", 1);
    testing::internal::CaptureStderr();
    report("", kSvcError, kStatusNoMemory);
    std::fputs("after\n", stderr);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), MatchesRegex("[^\n]* 38C52097 Memory[^\n]*\nafter\n"));
}

TEST_F(ServiceLog, GoesToSyslogWithoutAFileThatTakesIt) {
    setenv("QEL_SVC_LOG", "", 1);
    report("%s%d", kSvcError, kMsgFileOpen, "%s\n", EACCES);
    for (const char* file : {"/dev/full", "/"}) {
        setenv("QEL_SVC_LOG", file, 1);
        report("", kSvcErrorExit, kStatusCommandFile);
    }
    const std::string line = "2 client a.cpp:1 38C520A8 The command file was not run.\n";
    EXPECT_EQ(g_syslog,
              "3 client a.cpp:1 38C54042 The file %s\\x0A cannot be opened: Permission denied (13).\n" + line + line);
}

TEST_F(ServiceLog, GoesToAFileOfTheUsersWithoutSyslogAndAtLastToStandardError) {
    g_isSyslogThere = false;
    setenv("QEL_SVC_LOG", "/", 1);
    const std::string root = folder / "";
    const auto check = [&](const std::string& home, const std::string& state, const char* base) {
        setenv("HOME", home.c_str(), 1);
        setenv("XDG_STATE_HOME", state.c_str(), 1);
        log = root + base + "/vexiladmin/service.log";
        testing::internal::CaptureStderr();
        report("", kSvcError, kStatusNoMemory);
        const std::string shown = testing::internal::GetCapturedStderr();
        if (shown.empty()) {
            EXPECT_EQ(std::filesystem::status(root + base).permissions(), std::filesystem::perms(0700));
            EXPECT_EQ(std::filesystem::status(log).permissions(), std::filesystem::perms(0600));
        }
        EXPECT_THAT(takeLog() + shown, MatchesRegex("[^\n]* 38C52097 Mem[^\n]*\n")) << home << " " << state;
        return shown.empty();
    };
    EXPECT_TRUE(check(root, "", ".local/state") && check(root, "not/absolute", ".local/state"));
    EXPECT_TRUE(check(root, root + "a/b", "a/b"));
    EXPECT_FALSE(check(root, "/dev/null/a", "x") || check("/dev/null", "", "x") || check("", "", "x"));
}

TEST_F(Stanzas, HaveTheirEntriesInFileOrder) {
    writeFile(
        path,
        "\xEF\xBB\xBF[a]\r\nk= 1 \n\tk \n[ b c ]\t\n;[\n[x]\nx=9\n [a]\n[x]\n  # y = 7\ny=8 = z # ; c\r\r\n[[d]]\n]=[\n"
        "[#]\n[a]\nj=\xEF\xBB\xBF\x1B\xFF\nk=");
    EXPECT_EQ(read("a"), "(k=1)(k=)(j=\xEF\xBB\xBF\x1B\xFF)(k=)");
    EXPECT_EQ(read("x"), "(x=9)(y=8 = z # ; c)");
    EXPECT_EQ(read("[d]"), "(]=[)");
    EXPECT_EQ(read("b c") + read("#") + takeLog(), "");
    EXPECT_EQ(read("A") + read("ab") + read(""), "nonenonenone");
}

TEST_F(Stanzas, AreRefusedWithAReasonInTheServiceLog) {
    const std::pair<std::string_view, const char*> malformed[] = {
        {"# a\r\nk=v", "2: an entry stands before the first stanza"},
        {"[a]\n[", "2: a stanza name ends in ]"},
        {"[a] # b\nk=v", "1: a stanza name ends in ]"},
        {"[a]\n\n[ \t]", "3: the name is missing"},
        {"[a]\nk=1\n = v\nk=2", "3: the name is missing"},
        {"[a]\n\n#\0"sv, "3: it contains a NUL byte"},
    };
    for (const auto& [text, reason] : malformed) {
        writeFile(path, text);
        EXPECT_THAT(read("", kStatusFileSyntax), EndsWith(path + " is malformed at line " + reason + ".\n"));
    }
    path = folder / "fifo";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(read("a"), "none");  // without waiting for a writer
    path = folder / "";
    EXPECT_THAT(read("", kStatusFileRead), EndsWith(" cannot be read: Is a directory (21).\n"));
}

}  // namespace
