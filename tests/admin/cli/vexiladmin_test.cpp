#include <gtest/gtest.h>

#include <string>

#include "admin/cli/common/TarnAdminConfig.h"
#include "protocol/protocol.h"
#include "tests/runtime/Support.h"

namespace {

struct Config : testing::Test {
    std::uint32_t load(const std::string& entries, bool proxy) {
        writeFile(path, "[tarn]\n" + entries);
        return config.initialize(path.c_str(), proxy);
    }
    std::string url(const char* instance) const {
        const auto* list = config.serverURLs(instance);
        return list == nullptr ? "none" : list->values[0];
    }

    const TempFolder folder;
    const std::string path = folder / "vexilclicfg.conf";
    TarnAdminConfig config;
};

TEST_F(Config, IsReplacedByTheNextOneButForItsDefaultInstance) {
    EXPECT_EQ(url(nullptr), "none");
    ASSERT_EQ(load("location=a\ninstances=x\ntimeout=7\nserver-dns=d\nssl-keyfile=k\nssl-keyfile-stash=s\n", false),
              0U);
    EXPECT_EQ(url(nullptr), std::string("https://a/x") + protocol::kServicePath);
    ASSERT_EQ(load("location=b\ninstances=y\ntimeout=8\n", true), 0U);
    EXPECT_EQ(url("y"), std::string("http://b/y") + protocol::kProxyServicePath);
    EXPECT_EQ(url(nullptr), "none");
    EXPECT_STREQ(config.defaultInstance().data(), "x");
    EXPECT_EQ(config.sslInfo().server_dns.values, nullptr);
    EXPECT_EQ(config.sslInfo().keyfile, nullptr);
}

}  // namespace
