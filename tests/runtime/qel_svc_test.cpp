#include "runtime/qel_svc.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <regex.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>

#include "Support.h"
#include "runtime/qel_messages.h"
#include "runtime/qel_msg.h"

static std::string g_syslog;

// Stand in for the C library's.
extern "C" void openlog(const char* ident, int option, int facility) {
    g_syslog += std::string(ident) + (option == LOG_PID && facility == LOG_USER ? " " : "?");
}
extern "C" void syslog(int priority, const char* format, ...) {
    char line[500];
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    g_syslog += std::to_string(priority) + " " + line + "\n";
}

namespace {

constexpr auto kClient = QelSvcHandle::kClient;

bool matches(const std::string& text, const std::string& pattern) {
    regex_t regex;
    EXPECT_EQ(regcomp(&regex, ("^" + pattern + "$").c_str(), REG_EXTENDED | REG_NOSUB), 0);
    const bool matched = regexec(&regex, text.c_str(), 0, nullptr, 0) == 0;
    regfree(&regex);
    return matched;
}

struct ServiceLog : testing::Test {
    ServiceLog() {
        qelmsg_init("/bin/vexil", 0);
        setenv("QEL_SVC_LOG", log.c_str(), 1);
    }

    TempFolder folder;
    std::string log = folder / "log";
};

TEST_F(ServiceLog, AppendsOneLineAnEntryToTheFileNamed) {
    qel_svc_printf_withfile(kClient, "/src/a/Config.cpp", 42, "%s%s%s", kSvcGeneral, kSvcError, kMsgEntryMissing,
                            "tarn", "/etc/Zoë\n\x1B[m", nullptr);
    qel_svc_printf_withfile(QelSvcHandle::kDeployment, "b.cpp", 7, "%s%d", kSvcConfiguration, kSvcErrorExit,
                            kMsgFileOpen, "x", ENOENT);
    EXPECT_TRUE(matches(readFile(log),
                        "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z vexil\\[" + std::to_string(getpid()) +
                            "\\] client Config.cpp:42 38C5209F Stanza \\[tarn\\] of /etc/Zoë\\\\x0A\\\\x1B\\[m has no "
                            "value for the required entry \\. Add the entry\\.\n"
                            "[^ ]+ [^ ]+ deployment b.cpp:7 38C54042 The file x cannot be opened: No such file or "
                            "directory \\(2\\)\\.\n"))
        << readFile(log);
    struct stat attributes {};
    ASSERT_EQ(stat(log.c_str(), &attributes), 0);
    EXPECT_EQ(attributes.st_mode & 0777U, 0600U);
}

TEST_F(ServiceLog, WritesTheBareMessageWhenTheInsertsAreNotItsOwn) {
    for (const char* format : {"", "%s", "%d%s", "%s%d%d"}) {
        qel_svc_printf_withfile(kClient, "a", 1, format, kSvcGeneral, kSvcError, kMsgFileOpen);
        EXPECT_TRUE(readFile(log).ends_with(" client a:1 38C54042 The file %s cannot be opened: %s.\n")) << format;
        std::filesystem::remove(log);
    }
    qel_svc_printf_withfile(kClient, "a", 1, "%s", kSvcGeneral, kSvcError, 0x38C5FFFF, nullptr);
    EXPECT_TRUE(readFile(log).ends_with(" a:1 38C5FFFF The catalogue has no text for this status.\n"));
}

TEST_F(ServiceLog, LosesAnEntryItCannotWrite) {
    {
        const FailingNew noMemory;
        qel_svc_printf_withfile(kClient, "a", 1, "", kSvcGeneral, kSvcError, kStatusNoMemory);
    }
    EXPECT_FALSE(std::filesystem::exists(log));
    setenv("QEL_SVC_LOG", (log + "/absent").c_str(), 1);
    qel_svc_printf_withfile(kClient, "a", 1, "", kSvcGeneral, kSvcError, kStatusNoMemory);
}

TEST_F(ServiceLog, SharesThePositionOfStandardError) {
    setenv("QEL_SVC_LOG", "/dev/stderr", 1);
    const int saved = dup(STDERR_FILENO);
    const int file = open(log.c_str(), O_WRONLY | O_CREAT, 0600);
    dup2(file, STDERR_FILENO);
    qel_svc_printf_withfile(kClient, "a", 1, "", kSvcGeneral, kSvcError, kStatusNoMemory);
    std::fputs("after\n", stderr);
    dup2(saved, STDERR_FILENO);
    close(saved);
    close(file);
    EXPECT_TRUE(matches(readFile(log), "[^\n]* 38C52097 Memory[^\n]*\nafter\n")) << readFile(log);
}

TEST_F(ServiceLog, GoesToSyslogWithoutAFile) {
    setenv("QEL_SVC_LOG", "", 1);
    qel_svc_printf_withfile(kClient, "a", 1, "%s%d", kSvcGeneral, kSvcError, kMsgFileOpen, "%s\n", EACCES);
    unsetenv("QEL_SVC_LOG");
    qel_svc_printf_withfile(kClient, "a", 2, "", kSvcConfiguration, kSvcErrorExit, kStatusNoMemory);
    EXPECT_EQ(g_syslog,
              "vexil 3 client a:1 38C54042 The file %s\\x0A cannot be opened: Permission denied (13).\n"
              "vexil 2 client a:2 38C52097 Memory is exhausted. Free some on this host, then try again.\n");
}

}  // namespace
