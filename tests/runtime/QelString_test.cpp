#include "runtime/QelString.h"

#include <gtest/gtest.h>
#include <langinfo.h>

#include "Support.h"
#include "runtime/QelStringIter.h"
#include "runtime/QelStringRef.h"
#include "runtime/qel_messages.h"

using namespace std::string_view_literals;

static const char* g_codeset = "UTF-8";

// Stands in for the C library's, so that encodings can be tested whose locales are not installed.
extern "C" char* nl_langinfo(nl_item /*item*/) noexcept {
    return const_cast<char*>(g_codeset);
}

namespace {

struct Conversion {
    const char* codeset;
    std::string_view from, to;
};

void expectConversions(QelString::Mode mode, std::initializer_list<Conversion> conversions) {
    for (const Conversion& conversion : conversions) {
        g_codeset = conversion.codeset;
        EXPECT_EQ(QelString(conversion.from, mode).view(), conversion.to) << conversion.codeset;
    }
    g_codeset = "UTF-8";
}

constexpr const char* kAscii = "ANSI_X3.4-1968";  // the C locale's

TEST(QelString, ShowsTextAndMakesWhatDrivesATerminalVisible) {
    expectConversions(QelString::kForDisplay,
                      {{"UTF-8", "plain \\ text\t~", "plain \\ text\t~"},
                       {"UTF-8", "", ""},
                       {"UTF-8", "line\n", "line\n"},
                       {"UTF-8", "two\nlines\n\n", "two\\x0Alines\\x0A\n"},
                       {"UTF-8", "\x1B[2J\r\x7F\0"sv, "\\x1B[2J\\x0D\\x7F\\x00"},
                       {"UTF-8", "Zoë 東京 \U0001F600", "Zoë 東京 \U0001F600"},
                       {kAscii, "Zoë\x1B", "Zoë\\x1B"},
                       {"UTF-8", "\u0080\u009F\u00A0", "\\u{0080}\\u{009F}\u00A0"},
                       {"UTF-8", "\u061C\u200D\u200E\u200F", "\\u{061C}\u200D\\u{200E}\\u{200F}"},
                       {"UTF-8", "\u2027\u2028\u202E\u202F", "\u2027\\u{2028}\\u{202E}\u202F"},
                       {"UTF-8", "\u2065\u2066\u2069\u206A", "\u2065\\u{2066}\\u{2069}\u206A"},
                       // The ends of what is well-formed, then what lies just beyond.
                       {"UTF-8", "\u07FF\u0800\uD7FF\uE000\U0010FFFF", "\u07FF\u0800\uD7FF\uE000\U0010FFFF"},
                       {"UTF-8", "\xC1\xBF\xE0\x9F\xBF", "\\xC1\\xBF\\xE0\\x9F\\xBF"},
                       {"UTF-8", "\xF0\x8F\xBF\xBF\xFF", "\\xF0\\x8F\\xBF\\xBF\\xFF"},
                       {"UTF-8", "\xED\xA0\x80\xF4\x90\x80\x80", "\\xED\\xA0\\x80\\xF4\\x90\\x80\\x80"},
                       {"UTF-8", "\xE2\x82 \x82 \xE2\x82", "\\xE2\\x82 \\x82 \\xE2\\x82"},
                       {"ISO-8859-1", "Zoë €\u0085\xFF\n", "Zo\xEB \\u{20AC}\\u{0085}\\xFF\n"},
                       {"EUC-JP", "東京 \U0001F600", "\xC5\xEC\xB5\xFE \\u{1F600}"},
                       // An encoding that holds a letter back until it has seen the next.
                       {"BIG5-HKSCS", "ÊÊ", "\x88\x66\x88\x66"},
                       {"no such encoding", "aë", "a\\u{00EB}"}});
}

TEST(QelString, TakesTypedTextFromTheLocalesEncoding) {
    const std::string many(1000, '\xA4');
    std::string manyTaken(2000, '\xC2');
    for (std::size_t index = 1; index < manyTaken.size(); index += 2) {
        manyTaken[index] = '\xA4';
    }
    expectConversions(QelString::kFromLocale, {{"UTF-8", "Zoë \xFF\x1B\n", "Zoë \xFF\x1B\n"},
                                               {kAscii, "Zoë \xFF", "Zoë \xFF"},
                                               {"ISO-8859-1", "Zo\xEB", "Zoë"},
                                               {"ISO-8859-1", many, manyTaken},
                                               {"EUC-JP", "\xC5\xEC\xFF\xB5\xFE!\xC5", "東\xFF京!\xC5"},
                                               {"BIG5-HKSCS", "\x88\x66", "Ê"},
                                               {"no such encoding", "Zo\xEB", "Zo\xEB"}});
}

TEST(QelString, SetReplacesTheContentOrLeavesItAlone) {
    QelString text(static_cast<const char*>(nullptr));
    EXPECT_STREQ(text.data(), "");
    const std::string longText(100, '\x1B');
    for (const auto mode : {QelString::kBytes, QelString::kFromLocale, QelString::kForDisplay}) {
        ASSERT_EQ(text.set("kept"), 0U);
        {
            const FailingNew noMemory;
            EXPECT_EQ(text.set(longText.c_str(), mode), kStatusNoMemory);
        }
        EXPECT_EQ(text.view(), "kept");
        EXPECT_EQ(text.set(longText.c_str(), mode), 0U);
        EXPECT_EQ(text.length(), mode == QelString::kForDisplay ? 400U : 100U);
    }
    EXPECT_EQ(text.set(nullptr, QelString::kForDisplay), 0U);
    EXPECT_TRUE(text.empty());
}

TEST(QelString, HashesAsFnv1aAndComparesBytes) {
    const std::pair<std::string_view, std::uint32_t> vectors[] = {
        {"", 0x811C9DC5}, {"a", 0xE40C292C}, {"foobar", 0xBF9CF968}, {"\xFF\0\0\1"sv, 0xC48FB86D}};
    for (const auto& [text, hash] : vectors) {
        EXPECT_EQ(QelString(text).hash(), hash) << text;
    }
    EXPECT_EQ(QelString("blue").compare(QelString(QelStringRef("blue"))), 0);
    EXPECT_GT(QelString("blue").compare(QelString("Blue")), 0);
    EXPECT_LT(QelString("blue").compare(QelString("blues")), 0);
    EXPECT_GT(QelString("é").compare(QelString("z")), 0);
}

TEST(QelStringIter, YieldsThePiecesThatItCounts) {
    const struct {
        const char *text, *separator, *all, *nonEmpty;
    } cases[] = {{"", ",", "()", ""},
                 {"a, b ,c", ",", "(a)( b )(c)", "(a)( b )(c)"},
                 {",a,,b,", ",", "()(a)()(b)()", "(a)(b)"},
                 {"a::b:c", "::", "(a)(b:c)", "(a)(b:c)"}};
    for (const auto& [text, separator, all, nonEmpty] : cases) {
        for (const bool skipEmpty : {false, true}) {
            const QelString owner(text);
            QelStringIter pieces(owner, separator, skipEmpty);
            std::string seen;
            std::size_t count = 0;
            for (QelStringRef piece; pieces.next(piece); ++count) {
                seen.append("(").append(piece.view()).append(")");
            }
            EXPECT_EQ(seen, skipEmpty ? nonEmpty : all);
            EXPECT_EQ(pieces.count(), count) << text;
        }
    }
}

}  // namespace
