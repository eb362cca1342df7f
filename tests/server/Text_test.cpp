#include "server/Text.h"

#include <gtest/gtest.h>

using namespace dsessd;

TEST(Text, TellsCleanUtf8) {
    for (const char* clean : {"", "plain\x7F", "josé李伟", "\xEF\xBF\xBF", "\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"}) {
        EXPECT_TRUE(isCleanUtf8(clean)) << clean;
    }
    using namespace std::string_view_literals;
    for (const std::string_view bad :
         {"\x80"sv, "\xC3"sv, "\xC1\xBF"sv, "\xE0\x9F\xBF"sv, "\xED\xA0\x80"sv, "\xE2\x82"sv, "\xF0\x8F\xBF\xBF"sv,
          "\xF4\x90\x80\x80"sv, "\xF5\x80\x80\x80"sv, "\xFF"sv, "a\xC3("sv, "\xE2\x28\xA1"sv, "a\0b"sv}) {
        EXPECT_FALSE(isCleanUtf8(bad)) << harmless(bad);
    }
}

TEST(Text, MakesOneHarmlessLine) {
    EXPECT_EQ(harmless("josé\n2026 forged\x1B[2J\x7F\xC2\x9B\xFF"), "josé\\x0a2026 forged\\x1b[2J\\x7f\\xc2\\x9b\\xff");
    EXPECT_EQ(harmless("李伟李伟", 5), "李伟...") << "cut between characters";
}

TEST(Text, KeepsSecretsWithinTheRoomReserved) {
    SecretString secret(8);
    EXPECT_TRUE(secret.append("1234"));
    const char* room = secret.data();
    EXPECT_FALSE(secret.append(std::string(100, 'x')));
    EXPECT_EQ(secret.view(), "1234");
    secret.wipe();
    EXPECT_EQ(std::string_view(room, 4), std::string_view("\0\0\0\0", 4));
}
