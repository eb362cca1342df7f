#include "server/Text.h"

#include <gtest/gtest.h>

using namespace dsessd;

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
