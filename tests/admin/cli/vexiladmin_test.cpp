#include <gtest/gtest.h>

#include <new>
#include <string>
#include <vector>

#include "admin/cli/common/TarnAdminConfig.h"
#include "admin/cli/vexiladmin/TarnAdminCmdRegistry.h"
#include "admin/cli/vexiladmin/commands/StatelessCommands.h"
#include "protocol/protocol.h"
#include "runtime/qel_messages.h"
#include "tests/runtime/Support.h"

namespace {

using List = std::vector<std::string>;

constexpr char kSsl[] =
    "location=a,b\ninstances=x,an-instance-with-a-name-too-long-to-lie-in-the-object,x\ntimeout=7\nserver-dns=d,e\n"
    "ssl-keyfile=k\nssl-keyfile-stash=a-path-that-is-too-long-to-lie-in-the-object\n";

struct Config : testing::Test {
    std::uint32_t load(const std::string& entries, bool proxy = true) {
        writeFile(path, "[tarn]\n" + entries);
        return config.initialize(path.c_str(), proxy);
    }
    List urls(const char* instance) const {
        const auto* list = config.serverURLs(instance);
        return list == nullptr ? List{"none"} : List(list->values, list->values + list->count);
    }

    const TempFolder folder;
    const std::string path = folder / "vexilclicfg.conf";
    TarnAdminConfig config;
};

TEST_F(Config, IsReplacedByTheNextOneButForItsDefaultInstance) {
    EXPECT_EQ(urls(nullptr), List{"none"});
    ASSERT_EQ(load(kSsl, false), 0U);
    const std::string service = protocol::kServicePath;  // of which the configuration has its own
    EXPECT_EQ(urls("x"), (List{"https://a/x" + service, "https://b/x" + service}));
    EXPECT_EQ(urls(nullptr), urls("x"));
    EXPECT_EQ(config.instanceTable().size(), 3U);
    EXPECT_EQ(config.sslInfo().server_dns.count, 2);
    ASSERT_EQ(load("location=b\ninstances=y,z\ntimeout=8\n"), 0U);
    EXPECT_EQ(urls("y"), List{std::string("http://b/y") + protocol::kProxyServicePath});
    EXPECT_EQ(urls(nullptr), List{"none"});
    EXPECT_STREQ(config.defaultInstance().data(), "x");
    EXPECT_EQ(config.sslInfo().server_dns.values, nullptr);
    EXPECT_EQ(config.sslInfo().keyfile, nullptr);
}

TEST_F(Config, ThatFindsNoMemorySaysSoAndKeepsNothingHalfMade) {
    ASSERT_EQ(load(kSsl), 0U);
    std::uint32_t status = kStatusNoMemory;
    int failures = 0;
    for (; status == kStatusNoMemory; ++failures) {
        const FailingNew failing(failures);
        try {
            status = config.initialize(path.c_str(), true);
        } catch (const std::bad_alloc&) {
        }
    }
    EXPECT_EQ(status, 0U);
    EXPECT_GT(failures, 10);
}

TEST(Registry, LeavesACommandThatItCannotTakeToItsOwner) {
    TarnAdminCmdRegistry registry;
    TarnAdminTraceGet command;
    const FailingNew failing;
    EXPECT_EQ(registry.registerCmd(&command), kStatusNoMemory);
}

}  // namespace
