#include "server/Text.h"

#include <gtest/gtest.h>

using namespace dsessd;

TEST(Text, TellsCleanUtf8) {
    for (const char* clean :
         {"", "plain", "josé", "李伟", "\xF0\x9F\x94\x91", "\x7F", "\xEF\xBF\xBF", "\xF4\x8F\xBF\xBF"}) {
        EXPECT_TRUE(isCleanUtf8(clean)) << clean;
    }
    for (const std::string_view bad :
         {"\x80", "\xC3", "\xC0\xAF", "\xC1\xBF", "\xE0\x9F\xBF", "\xED\xA0\x80", "\xED\xBF\xBF", "\xE2\x82",
          "\xF0\x8F\xBF\xBF", "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xFF", "a\xC3(", "\xE2\x28\xA1"}) {
        EXPECT_FALSE(isCleanUtf8(bad)) << harmless(bad);
    }
    EXPECT_FALSE(isCleanUtf8(std::string_view("a\0b", 3)));
}

TEST(Text, MakesOneHarmlessLine) {
    EXPECT_EQ(harmless("josé\n2026 forged\x1B[2J\x7F\xC2\x9B\xFF"), "josé\\x0a2026 forged\\x1b[2J\\x7f\\xc2\\x9b\\xff");
    EXPECT_EQ(harmless("李伟李伟", 5), "李伟...") << "cut between characters";
}

TEST(Text, KeepsSecretsWithinTheRoomReserved) {
    SecretString secret(8);
    EXPECT_TRUE(secret.append("1234"));
    const char* room = secret.data();
    std::string much(100, 'x');
    EXPECT_FALSE(secret.append(much));
    EXPECT_EQ(secret.view(), "1234");
    EXPECT_EQ(secret.data(), room);
    secret.wipe();
    EXPECT_EQ(std::string_view(room, 4), std::string_view("\0\0\0\0", 4));
}
