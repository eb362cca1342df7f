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

void requireConversions(std::string_view text) {
    for (const char* codeset : {"UTF-8", "ISO-8859-1", "EUC-JP"}) {
        g_codeset = codeset;
        const QelString typed(text, QelString::kFromLocale);
        REQUIRE(codeset[0] != 'U' || typed.view() == text);
        const QelString visible(typed.view(), QelString::kForDisplay);
        const std::string_view shown = visible.view();
        REQUIRE(shown.find_first_of("\r\x1B\x7F") == shown.npos && shown.find("\u202E") == shown.npos);
        REQUIRE(shown.find('\n') >= shown.size() - 1);
        const auto c1 = [](char byte) { return (byte & 0xE0) == 0x80; };
        REQUIRE(codeset[0] != 'I' || std::none_of(shown.begin(), shown.end(), c1));
    }
}

void requireWords(const std::string& text) {
    static const Command commands[] = {Command("realm list"), Command("replica set list [-realm <realm>]"),
                                       Command("session list -realm <realm-name> <pattern> <max>"),
                                       Command("login <user> [password]")};
    TarnAdminCmdTokens words;
    REQUIRE(words.set(text.c_str()) == 0);
    REQUIRE(words.tokens() >= 0 && words.tokens() <= TarnAdminCmdTokens::kMaxTokens);
    REQUIRE(words[-1] == nullptr && words[words.tokens()] == nullptr);
    for (std::int32_t index = 0; index < words.tokens(); ++index) {
        REQUIRE(*words[index] != '\0' && std::strpbrk(words[index], " \t\n") == nullptr);
        REQUIRE(text.find(words[index]) != std::string::npos);
    }
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
