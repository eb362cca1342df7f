#include <gtest/gtest.h>
#include <sys/random.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "runtime/QelStringIter.h"
#include "runtime/qel_base64.h"
#include "runtime/qel_messages.h"
#include "runtime/qel_path.h"
#include "runtime/qel_random.h"
#include "runtime/qel_strtol.h"
#include "runtime/qel_uuid.h"

/// Results of the calls of getrandom to come: 'i' interrupted, '1' one byte, 'f' failed; none: the system's own.
static std::string g_randomness;

extern "C" ssize_t getrandom(void* buffer, std::size_t length, unsigned flags) {
    if (g_randomness.empty()) {
        return syscall(SYS_getrandom, buffer, length, flags);
    }
    const char result = g_randomness.front();
    g_randomness.erase(0, 1);
    errno = result == 'i' ? EINTR : EIO;
    return result == '1' ? syscall(SYS_getrandom, buffer, 1, flags) : -1;
}

namespace {

TEST(Strtol, TakesASignAndDecimalDigitsThatFit) {
    const QelString accepted("0|30|+30|-5|-0|0000000000000000007|010|2147483647|-2147483648");
    const QelString rejected(
        "| |+|-|+-5|-+5|++5|--5| 5|5 |5\n|0x10|1e3|1.0|1,000|ten|2147483648|-2147483649|\uFF15|"
        "99999999999999999999");
    for (const QelString* texts : {&accepted, &rejected}) {
        QelStringIter iter(*texts, "|", false);
        for (QelStringRef piece; iter.next(piece);) {
            const std::string text(piece.view());
            std::int32_t value = 99;
            EXPECT_EQ(qel_strtol(text.c_str(), 10, &value), texts == &accepted ? 0 : kStatusInvalidValue) << text;
            EXPECT_EQ(value, texts == &accepted ? std::stol(text) : 99) << text;
        }
    }
    EXPECT_EQ(qel_strtol(nullptr, 10, nullptr), kStatusInvalidValue);
}

TEST(Base64, EncodesTheVectorsOfRfc4648WhereTheyFit) {
    const std::pair<std::string, std::string> vectors[] = {
        {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foobar", "Zm9vYmFy"}, {"\xFB\xEF\xFF", "++//"}};
    for (const auto& [bytes, encoded] : vectors) {
        std::string output(encoded.size() + 1, '!');
        const std::string untouched = output;
        const auto* input = reinterpret_cast<const unsigned char*>(bytes.data());
        EXPECT_EQ(qel_base64_std_encode(input, bytes.size(), output.data(), encoded.size()), -1);
        EXPECT_EQ(qel_base64_std_encode(input, SIZE_MAX, output.data(), output.size()), -1);
        EXPECT_EQ(output, untouched);
        EXPECT_EQ(qel_base64_std_encode(input, bytes.size(), output.data(), output.size()), int(encoded.size()));
        EXPECT_STREQ(output.c_str(), encoded.c_str());
    }
}

TEST(Random, FillsTheBufferOrReportsThatItCannot) {
    std::string bytes(4096, '\0');
    g_randomness = "i" + std::string(30, '1');
    EXPECT_EQ(qel_get_random_bytes(bytes.data(), bytes.size()), 0U);
    EXPECT_GT(bytes.find_last_not_of('\0') + 1, bytes.size() - 16);
    g_randomness = "1f";
    EXPECT_EQ(qel_get_random_bytes(bytes.data(), bytes.size()), kStatusNoRandom);
    g_randomness = "f";
    std::uint32_t status = 0;
    qel_uuid_create(&status);
    EXPECT_EQ(status, kStatusNoUuid);
}

TEST(Uuid, IsRandomAndOfVersionFour) {
    std::string texts[2];
    for (std::string& seen : texts) {
        std::uint32_t status[3] = {1, 1, 1};
        char* text = qel_uuid_to_string(qel_uuid_create(&status[0]), &status[1]);
        seen = text;
        qel_uuid_string_free(&text, &status[2]);
        EXPECT_EQ(status[0] | status[1] | status[2], 0U);
        EXPECT_EQ(text, nullptr);
        ASSERT_EQ(seen.size(), 36U);
        EXPECT_EQ(seen.find_first_not_of("0123456789abcdef-"), std::string::npos) << seen;
        EXPECT_EQ(std::string({seen[8], seen[13], seen[14], seen[18], seen[23]}), "--4--") << seen;
        EXPECT_NE(std::string("89ab").find(seen[19]), std::string::npos) << seen;
    }
    EXPECT_NE(texts[0], texts[1]);
}

TEST(Path, IsTheConfigurationDirectoryWithASlash) {
    unsetenv("QEL_CONFIG_DIR");
    const QelString installed = qel_get_path(kPathConfiguration);
    EXPECT_TRUE(installed.view().starts_with('/') && installed.view().ends_with("/vexiladmin/")) << installed.data();
    EXPECT_TRUE(qel_get_path(kPathConfiguration + 1).empty());
    const std::pair<const char*, std::string_view> cases[] = {
        {"/srv/conf", "/srv/conf/"}, {"/srv/conf/", "/srv/conf/"}, {"conf", "conf/"}, {"", installed.view()}};
    for (const auto& [directory, path] : cases) {
        setenv("QEL_CONFIG_DIR", directory, 1);
        EXPECT_EQ(qel_get_path(kPathConfiguration).view(), path);
    }
}

}  // namespace
