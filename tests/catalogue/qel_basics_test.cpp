#include <fcntl.h>
#include <gtest/gtest.h>
#include <langinfo.h>
#include <sys/random.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <thread>

#include "catalogue/QelString.h"
#include "catalogue/QelStringIter.h"
#include "catalogue/qel_messages.h"
#include "catalogue/qel_path.h"
#include "runtime/qel_io.h"
#include "runtime/qel_random.h"
#include "runtime/qel_utf8.h"
#include "runtime/qel_uuid.h"

using namespace std::string_view_literals;

static const char* g_codeset = "UTF-8";
/// Results of the calls of getrandom to come: 'i' interrupted, '1' one byte, 'f' failed; none: the system's own.
static std::string g_randomness;

// Stand in for the C library's. Encodings can be tested whose locales are not installed.
extern "C" char* nl_langinfo(nl_item /*item*/) noexcept {
    return const_cast<char*>(g_codeset);
}
extern "C" ssize_t getrandom(void* buffer, std::size_t length, unsigned flags) {
    const char result = g_randomness.empty() ? 'a' : g_randomness.front();
    g_randomness.erase(0, 1);
    errno = result == 'i' ? EINTR : EIO;
    return result == 'i' || result == 'f' ? -1 : syscall(SYS_getrandom, buffer, result == '1' ? 1 : length, flags);
}

namespace {

/// The pieces between |, empty ones too.
std::vector<std::string> split(const char* text) {
    const QelString owner(text);
    QelStringIter iter(owner, "|", false);
    std::vector<std::string> pieces;
    for (QelStringRef piece; iter.next(piece);) {
        pieces.emplace_back(piece.view());
    }
    EXPECT_EQ(iter.count(), pieces.size());
    return pieces;
}

TEST(QelString, ConvertsFromAndToTheLocalesEncodingAndShowsNothingThatDrivesATerminal) {
    constexpr auto kFrom = QelString::kFromLocale, kShown = QelString::kForDisplay;
    constexpr const char* kC = "ANSI_X3.4-1968";  // the C locale's
    const struct {
        QelString::Mode mode;
        const char* codeset;
        std::string_view from, to;
    } cases[] = {
        {kShown, "UTF-8", "a \\\t~\nb\n\n", "a \\\t~\\x0Ab\\x0A\n"},
        {kShown, "UTF-8", "\x1B[2J\r\x7F\0"sv, "\\x1B[2J\\x0D\\x7F\\x00"},
        {kShown, "UTF-8", "12345678 bc\x7Fxyz 12345\x1Bmnop", "12345678 bc\\x7Fxyz 12345\\x1Bmnop"},
        {kShown, kC, "Zoë 東京 \U0001F600\x1B", "Zoë 東京 \U0001F600\\x1B"},
        {kShown, "UTF-8", "\u0080\u009F\u00A0", "\\u{0080}\\u{009F}\u00A0"},
        {kShown, "UTF-8", "\u061C\u200D\u200E\u200F\u2027", "\\u{061C}\u200D\\u{200E}\\u{200F}\u2027"},
        {kShown, "UTF-8", "\u2028\u202E\u202F", "\\u{2028}\\u{202E}\u202F"},
        {kShown, "UTF-8", "\u2065\u2066\u2069\u206A", "\u2065\\u{2066}\\u{2069}\u206A"},
        {kShown, "UTF-8", "\xE2\x82 \x82 \xE2\x82", "\\xE2\\x82 \\x82 \\xE2\\x82"},
        {kShown, "ISO-8859-1", "Zoë €\u0085\xFF\n", "Zo\xEB \\u{20AC}\\u{0085}\\xFF\n"},
        // An encoding that holds a letter back until it has seen the next.
        {kShown, "BIG5-HKSCS", "ÊÊ", "\x88\x66\x88\x66"},
        {kShown, "no such encoding", "aë", "a\\u{00EB}"},
        {kFrom, kC, "Zoë \xFF", "Zoë \xFF"},
        {kFrom, "EUC-JP", "\xC5\xEC\xFF\xB5\xFE!\xC5", "東\xFF京!\xC5"},
    };
    for (const auto& [mode, codeset, from, to] : cases) {
        g_codeset = codeset;
        EXPECT_EQ(QelString(from, mode).view(), to) << codeset;
    }
    g_codeset = "ISO-8859-1";
    EXPECT_EQ(QelString(std::string(1000, '\xA4'), kFrom).length(), 2000U);
    g_codeset = "UTF-8";
}

TEST(Utf8, TakesWhatIsWellFormedAndNothingBeside) {
    constexpr std::uint32_t kCodePoints[] = {0x01, 0x7F, 0x80, 0x7FF, 0x800, 0xD7FF, 0xE000, 0xFFFF, 0x10000, 0x10FFFF};
    const auto characters = split("\x01|\x7F|\u0080|\u07FF|\u0800|\uD7FF|\uE000|\uFFFF|\U00010000|\U0010FFFF");
    for (std::size_t i = 0; i < std::size(kCodePoints); ++i) {
        const QelCharacter found = qel_utf8_decode(characters[i] + "\x80");
        EXPECT_EQ(std::pair(found.length, found.codePoint), std::pair(characters[i].size(), kCodePoints[i]));
        EXPECT_TRUE(qel_utf8_is_text("1234567" + characters[i] + "12345678")) << kCodePoints[i];
    }
    for (const std::string& bytes : split("\x80|\xBF|\xC0\x80|\xC1\xBF|\xC2|\xC2\x7F|\xC2\xC0|\xE0\x9F\xBF|\xE1\x80|"
                                          "\xE1\x7F\x80|\xE1\x80\xC0|\xED\xA0\x80|\xED\xBF\xBF|\xF0\x8F\xBF\xBF|"
                                          "\xF1\x80\x80|\xF1\x80\x80\x7F|\xF1\x80\xC0\x80|\xF4\x90\x80\x80|"
                                          "\xF5\x80\x80\x80|\xFF")) {
        EXPECT_EQ(qel_utf8_decode(bytes).length, 0U) << testing::PrintToString(bytes);
        EXPECT_FALSE(qel_utf8_is_text("12345678" + bytes)) << testing::PrintToString(bytes);
    }
    EXPECT_FALSE(qel_utf8_is_text("1234567\0"sv) || qel_utf8_is_text("\0"sv));
}

TEST(Randomness, FillsBuffersAndUuidsOrReportsThatItCannot) {
    std::string bytes(4096, '\0');
    g_randomness = "i" + std::string(30, '1');
    EXPECT_TRUE(qel_get_random_bytes(bytes.data(), bytes.size()));
    EXPECT_GT(bytes.find_last_not_of('\0') + 1, bytes.size() - 16);
    g_randomness = "1f";
    EXPECT_FALSE(qel_get_random_bytes(bytes.data(), bytes.size()));
    g_randomness = "f";
    EXPECT_FALSE(qel_make_uuid());
}

TEST(Path, IsThatOfTheInstallationUnlessAnotherIsNamed) {
    setenv("QEL_CONFIG_DIR", "", 1);
    EXPECT_TRUE(qel_get_path(kPathConfiguration).view().ends_with("/vexiladmin/"));
}

int g_pipe[2];

TEST(Io, GoesOnAfterAnInterruptionAndWherePartWasDone) {
    ASSERT_EQ(pipe(g_pipe), 0);
    struct sigaction action {};  // not restarting what it interrupts
    action.sa_handler = [](int) { EXPECT_EQ(write(g_pipe[1], "x", 1), 1); };
    sigaction(SIGALRM, &action, nullptr);
    const itimerval soon{{}, {0, 50'000}};
    for (const int flags : {0, O_NONBLOCK}) {
        fcntl(g_pipe[0], F_SETFL, flags);
        setitimer(ITIMER_REAL, &soon, nullptr);
        char byte = 0;
        EXPECT_EQ(qel_read(g_pipe[0], &byte, 1), 1);
    }
    fcntl(g_pipe[1], F_SETFL, O_NONBLOCK);
    const std::string text(200'000, 'x');  // more than a pipe takes
    std::string read;
    std::thread reader([&read] {
        for (char byte = 0; qel_read(g_pipe[0], &byte, 1) == 1;) {
            read += byte;
        }
    });
    EXPECT_TRUE(qel_write(g_pipe[1], text));
    close(g_pipe[1]);
    reader.join();
    EXPECT_TRUE(read == text) << read.size();
}

}  // namespace
