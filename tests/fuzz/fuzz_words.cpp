/// Whatever is typed: its conversions lose nothing and show no control, and its words can be matched with every kind of
/// pattern.

#include <langinfo.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>

#include "Require.h"
#include "admin/cli/vexiladmin/TarnAdminCmd.h"
#include "runtime/QelString.h"

static const char* g_codeset = "UTF-8";

// Stands in for the C library's.
extern "C" char* nl_langinfo(nl_item /*item*/) noexcept {
    return const_cast<char*>(g_codeset);
}

namespace {

struct Command : TarnAdminCmd {
    using TarnAdminCmd::TarnAdminCmd;
    std::uint32_t executeCmd(void* const&, olm_dsess_admin_sec_info_t const&, TarnAdminCmdTokens const&) override {
        return 0;
    }
};

std::string shown(std::string_view text) {
    const std::string visible(QelString(text, QelString::kForDisplay).view());
    REQUIRE(!text.ends_with('\n') || visible.ends_with('\n'));
    REQUIRE(std::none_of(visible.begin(), visible.end() - (text.ends_with('\n') ? 1 : 0), [](char byte) {
        return (static_cast<unsigned char>(byte) < 0x20 && byte != '\t') || byte == 0x7F;
    }));
    return visible;
}

void requireConversions(std::string_view text) {
    g_codeset = "EUC-JP";
    shown(QelString(text, QelString::kFromLocale).view());
    g_codeset = "ISO-8859-1";
    const auto high = std::count_if(text.begin(), text.end(), [](char byte) { return (byte & 0x80) != 0; });
    REQUIRE(QelString(text, QelString::kFromLocale).length() == text.size() + high);
    const std::string latin = shown(text);
    REQUIRE(std::none_of(latin.begin(), latin.end(), [](char byte) { return (byte & 0xE0) == 0x80; }));
    g_codeset = "UTF-8";
    REQUIRE(QelString(text, QelString::kFromLocale).view() == text);
    const std::string visible = shown(text);
    REQUIRE(shown(visible) == visible);
    REQUIRE(visible.find("\u202E") == std::string::npos && visible.find("\u2066") == std::string::npos);
}

void requireWords(const std::string& text) {
    static const Command commands[] = {Command("realm list"), Command("replica set list [-realm <realm>]"),
                                       Command("session list -realm <realm-name> <pattern> <max>"),
                                       Command("login <user> [password]")};
    TarnAdminCmdTokens words;
    REQUIRE(words.set(text.c_str()) == 0);
    REQUIRE(words.tokens() >= 0 && words.tokens() <= TarnAdminCmdTokens::kMaxTokens);
    REQUIRE(words[-1] == nullptr && words[words.tokens()] == nullptr);
    std::string together;
    for (std::int32_t index = 0; index < words.tokens(); ++index) {
        REQUIRE(*words[index] != '\0' && std::strpbrk(words[index], " \t\n") == nullptr);
        together += words[index];
    }
    std::string bare = text.c_str();
    std::erase_if(bare, [](char byte) { return std::strchr(" \t\n", byte) != nullptr; });
    REQUIRE(words.tokens() == TarnAdminCmdTokens::kMaxTokens ? bare.starts_with(together) : bare == together);
    for (const Command& command : commands) {
        const MatchResult grade = command.matchCmd(words);
        REQUIRE(grade >= MatchExact && (grade == MatchNone || (grade < MatchNone && words.tokens() <= 7)));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    requireConversions(text);
    requireWords(text);
    return 0;
}
