#include "server/Text.h"

#include <gtest/gtest.h>

using namespace dsessd;

TEST(Text, MakesOneHarmlessLine) {
    EXPECT_EQ(harmless("josé\n2026 forged\x1B[2J\x7F\xC2\x9B\xFF"), "josé\\x0a2026 forged\\x1b[2J\\x7f\\xc2\\x9b\\xff");
    EXPECT_EQ(harmless("李伟李伟", 5), "李伟...") << "cut between characters";
}
