#include <gtest/gtest.h>

#include <new>
#include <string>
#include <vector>

#include "admin/cli/common/TarnAdminConfig.h"
#include "admin/cli/vexiladmin/TarnAdminCmdRegistry.h"
#include "admin/cli/vexiladmin/commands/TarnAdminTraceGet.h"
#include "runtime/qel_messages.h"
#include "tests/runtime/Support.h"

namespace {

class Config : public testing::Test {
  protected:
    std::uint32_t load(const char* entries, bool proxy = false) {
        writeFile(m_path, std::string("[tarn]\n").append(entries));
        return m_config.initialize(m_path.c_str(), proxy);
    }
    std::vector<std::string> urls(const char* instance) const {
        const auto* list = m_config.serverURLs(instance);
        return list == nullptr ? std::vector<std::string>{"none"}
                               : std::vector<std::string>(list->values, list->values + list->count);
    }

    const TempFolder m_folder;
    const std::string m_path = m_folder / "vexilclicfg.conf";
    TarnAdminConfig m_config;
};

TEST_F(Config, ComposesOneUrlPerLocationForEachInstance) {
    using List = std::vector<std::string>;
    EXPECT_EQ(urls(nullptr), List{"none"});
    ASSERT_EQ(load("location=a,b\ninstances=blue,green,blue\ntimeout=1\n"), 0U);
    EXPECT_EQ(urls("blue"), (List{"http://a/blue/services/DSessAdmin", "http://b/blue/services/DSessAdmin"}));
    EXPECT_EQ(urls("green"), (List{"http://a/green/services/DSessAdmin", "http://b/green/services/DSessAdmin"}));
    EXPECT_EQ(urls(nullptr), urls("blue"));
    EXPECT_EQ(urls("Blue"), List{"none"});
    EXPECT_EQ(urls(""), List{"none"});
    EXPECT_EQ(m_config.instanceTable().size(), 3U);
}

TEST_F(Config, IsReplacedByTheNextOneButForItsDefaultInstance) {
    const char* const ssl =
        "location=a\ninstances=x,y\ntimeout=7\nssl-keyfile=k\nssl-keyfile-stash=s\nserver-dns=d,e\n";
    ASSERT_EQ(load(ssl, true), 0U);
    EXPECT_EQ(m_config.sslInfo().server_dns.count, 2);
    ASSERT_EQ(load("location=b\ninstances=y,z\ntimeout=8\n", true), 0U);
    EXPECT_EQ(urls("y"), std::vector<std::string>{"http://b/y/services/DSessAdminProxy"});
    EXPECT_EQ(urls(nullptr), std::vector<std::string>{"none"});
    EXPECT_STREQ(m_config.defaultInstance().data(), "x");
    EXPECT_EQ(m_config.sslInfo().server_dns.values, nullptr);
    EXPECT_EQ(m_config.sslInfo().keyfile, nullptr);
    EXPECT_EQ(load("location=b\ninstances=y\ntimeout=-1\n"), kStatusInvalidNumber);
    EXPECT_EQ(m_config.shutdown(), 0U);
    EXPECT_EQ(m_config.instanceTable().size(), 0U);
}

TEST_F(Config, ThatFindsNoMemorySaysSoAndKeepsNothingHalfMade) {
    const std::string name(100, 'n');
    const std::string entries = "location=a,b\ninstances=" + name + ",y" + name + "\ntimeout=7\nssl-keyfile=k\n" +
                                "ssl-keyfile-stash=" + name + "\nserver-dns=d,e\n";
    ASSERT_EQ(load(entries.c_str()), 0U);
    int failures = 0;
    for (std::uint32_t status = kStatusNoMemory; status != 0; ++failures) {
        TarnAdminConfig config;
        try {
            const FailingNew failing(failures);
            status = config.initialize(m_path.c_str(), true);
        } catch (const std::bad_alloc&) {
            status = kStatusNoMemory;
        }
        ASSERT_TRUE(status == 0 || status == kStatusNoMemory) << std::hex << status;
    }
    EXPECT_GT(failures, 10);
}

TEST(Registry, LeavesACommandThatItCannotTakeToItsOwner) {
    TarnAdminCmdRegistry registry;
    TarnAdminTraceGet command;
    const FailingNew failing;
    EXPECT_EQ(registry.registerCmd(&command), kStatusNoMemory);
}

}  // namespace
