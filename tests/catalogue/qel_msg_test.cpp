#include "catalogue/qel_msg.h"

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

#include "Support.h"
#include "admin/cli/config/qel_stanza.h"
#include "catalogue/qel_messages.h"
#include "catalogue/qel_svc.h"

using namespace std::literals;
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
extern "C" char* strerror_r(int error, char* /*buffer*/, std::size_t /*size*/) noexcept {
    return const_cast<char*>(g_translated.second == nullptr ? strerrordesc_np(error) : "Fehler");
}
extern "C" int connect(int /*socket*/, const sockaddr* /*address*/, socklen_t /*length*/) {
    return g_isSyslogThere ? 0 : -1;
}
// With _FORTIFY_SOURCE, clang calls this in place of syslog. NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" void __vsyslog_chk(int priority, int /*flag*/, const char* format, std::va_list arguments) {
    EXPECT_STREQ(format, "%s");
    g_syslog += std::to_string(priority) + " " + va_arg(arguments, const char*) + "\n";
}
extern "C" void syslog(int priority, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    __vsyslog_chk(priority, 0, format, arguments);
    va_end(arguments);
}
// And GCC calls this. NOLINTNEXTLINE(bugprone-reserved-identifier)
extern "C" void __syslog_chk(int priority, int flag, const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    __vsyslog_chk(priority, flag, format, arguments);
    va_end(arguments);
}

namespace {

template <class... Arguments>
std::string format(std::uint32_t identifier, Arguments... arguments) {
    testing::internal::CaptureStderr();
    qel_fprintf(stderr, identifier, arguments...);
    return testing::internal::GetCapturedStderr();
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
    const auto translate = [](std::uint32_t identifier, const char* translation) {
        const std::string_view source = qel_msg_get_default_msg(identifier, nullptr);
        g_translated = {source.substr(source.starts_with("38C5") ? 9 : 0), translation};
    };
    const auto translated = [&](std::uint32_t identifier, const char* translation, auto... arguments) {
        const std::string english = format(identifier, arguments...);
        translate(identifier, translation);
        const std::string text = format(identifier, arguments...);
        return text == english ? "English" : text;
    };
    EXPECT_EQ(translated(kMsgInvalidValue, "100%% ungültig: %1$s", "max"), "38C5213E 100% ungültig: max");
    EXPECT_EQ(translated(kMsgFileRead, "%2$s: %1$s\n", "a", EISDIR), "38C54044 Fehler (21): a\n");
    EXPECT_EQ(translated(kMsgKey, "%s, %3$s", "k", "now"), "English");
    EXPECT_EQ(translated(kMsgNoRealms, "%s%s%s%s%s%s%s%s%s%s"), "English");
    EXPECT_EQ(translated(kMsgReplicaSetRecord, "%2$s", "a", "b"), "English");
    EXPECT_EQ(translated(kMsgSessionsHeading, "%d %s", 2, 1), "English");
    EXPECT_EQ(translated(kMsgSession, "%s %s %s %1$", "a", "b", "c"), "English");
    const auto statusShown = [&](std::uint32_t status, const char* translation) {
        translate(status, translation);
        testing::internal::CaptureStderr();
        qel_print_status(stderr, status);
        return testing::internal::GetCapturedStderr();
    };
    EXPECT_EQ(statusShown(kMsgInvalidNumber, "%2$s:\n%1$s, 100%%, %3$s\n\n"), "38C532BE ...: ..., 100%, ...\n");
    EXPECT_EQ(statusShown(kMsgFileSyntax, "%s%d%s%n"), "38C54046 The file ... is malformed at line ...: ....\n");
}

TEST(Messages, KeepBytesInTheCLocaleAndAreInTheProgramsName) {
    for (const char* name : {"C", "POSIX", "xx_XX.none", "C.UTF-8"}) {
        setenv("LC_ALL", name, 1);
        std::setlocale(LC_ALL, "C");
        qelmsg_init("/usr/bin/vexil", 0);
        EXPECT_STREQ(std::setlocale(LC_CTYPE, nullptr), "C.UTF-8") << name;
        EXPECT_STREQ(std::setlocale(LC_MESSAGES, nullptr), "C") << name;
    }
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
        static_cast<void>(qelStzMoveStanza(file.get(), "x"));
        std::string seen = qelStzMoveStanza(file.get(), stanza) == 0 ? "" : "none";
        while (qelStzEntryName(file.get()) != nullptr) {
            seen += "(" + std::string(qelStzEntryName(file.get())) + "=" + qelStzEntryValue(file.get()) + ")";
            status = qelStzMoveNextEntry(file.get());
        }
        return seen;
    }

    const TempFolder folder;
    std::string log = folder / "log", path = folder / "file";
};

TEST_F(Files, TheLogSharesThePositionOfStandardError) {
    setenv("QEL_SVC_LOG", "/dev/stderr", 1);
    testing::internal::CaptureStderr();
    report("", kSvcError, kStatusNoMemory);
    std::fputs("after\n", stderr);
    EXPECT_THAT(testing::internal::GetCapturedStderr(), EndsWith("try again.\nafter\n"));
}

TEST_F(Files, TheLogTakesOneLineAnEntry) {
    report("%s%s%s", kSvcError, kMsgEntryMissing, "tarn", "/Zoë\n\x1B[m", nullptr);
    g_translated = {"The file %s cannot be opened: %s.\n", "%s ? %s"};
    report("%s%d", kSvcErrorExit, kMsgFileOpen, "x", ENOENT);
    EXPECT_EQ(std::filesystem::status(log).permissions(), std::filesystem::perms(0600));
    EXPECT_THAT(
        takeLog(),
        MatchesRegex("[-0-9]{10}T[:0-9]{8}Z vexil\\[" + std::to_string(getpid()) +
                     "\\] client a.cpp:1 38C5209F Stanza \\[tarn\\] of /Zoë\\\\x0A\\\\x1B\\[m has [^\n]* entry \\. "
                     "Add[^\n]*\n[^\n]* 38C54042 The file x cannot be opened: No such file or directory \\(2\\)\\.\n"));
    report("%d%s", kSvcError, kMsgFileOpen);  // inserts that are not the message's
    EXPECT_THAT(takeLog(), EndsWith(" a.cpp:1 38C54042 The file %s cannot be opened: %s.\n"));
}

TEST_F(Files, TheLogIsSyslogWithoutAFileThatTakesIt) {
    setenv("QEL_SVC_LOG", "", 1);
    report("%s%d", kSvcError, kMsgFileOpen, "%s\n", EACCES);
    setenv("QEL_SVC_LOG", "/dev/full", 1);
    report("", kSvcErrorExit, kStatusCommandFile);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    setenv("QEL_SVC_LOG", path.c_str(), 1);  // whose reader nobody waits for
    report("", kSvcError, kStatusCommandFile);
    EXPECT_EQ(g_syslog,
              "3 client a.cpp:1 38C54042 The file %s\\x0A cannot be opened: Permission denied (13).\n"
              "2 client a.cpp:1 38C520A8 The command file was not run.\n"
              "3 client a.cpp:1 38C520A8 The command file was not run.\n");
}

TEST_F(Files, TheLogIsTheUsersWithoutSyslogAndAtLastStandardError) {
    g_isSyslogThere = false;
    setenv("QEL_SVC_LOG", "/", 1);
    const std::string root = folder / "";
    for (const auto& [home, state, base] : {std::tuple(root, "not/absolute"s, root + ".local/state"),
                                            {root, root + "a/b", root + "a/b"},
                                            {root, "/dev/null/a", "none"},
                                            {"", "", "none"}}) {
        setenv("HOME", home.c_str(), 1);
        setenv("XDG_STATE_HOME", state.c_str(), 1);
        log = base + "/vexiladmin/service.log";
        testing::internal::CaptureStderr();
        report("", kSvcError, kStatusNoMemory);
        const std::string shown = testing::internal::GetCapturedStderr();
        EXPECT_EQ(shown.empty(), base != "none");
        if (shown.empty()) {
            EXPECT_EQ(std::filesystem::status(base).permissions(), std::filesystem::perms(0700));
            EXPECT_EQ(std::filesystem::status(log).permissions(), std::filesystem::perms(0600));
        }
        EXPECT_THAT(takeLog() + shown, MatchesRegex("[^\n]* 38C52097 Mem[^\n]*\n")) << home << " " << state;
    }
}

TEST_F(Files, StanzasHaveTheirEntriesInFileOrder) {
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

TEST_F(Files, StanzasAreRefusedWithAReasonInTheLog) {
    const std::pair<std::string_view, const char*> malformed[] = {
        {"# a\r\nk=v", "2: an entry stands before the first stanza"},
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
