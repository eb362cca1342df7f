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

bool isControl(char byte) {
    return (static_cast<unsigned char>(byte) < 0x20 && byte != '\t') || byte == 0x7F;
}

std::string shown(std::string_view text) {
    const QelString visible(text, QelString::kForDisplay);
    std::string_view line = visible.view();
    if (text.ends_with('\n')) {
        REQUIRE(line.ends_with('\n'));
        line.remove_suffix(1);
    }
    REQUIRE(std::none_of(line.begin(), line.end(), isControl));
    return std::string(visible.view());
}

void requireConversions(std::string_view text) {
    const auto high = std::count_if(text.begin(), text.end(), [](char byte) { return (byte & 0x80) != 0; });

    g_codeset = "EUC-JP";
    shown(QelString(text, QelString::kFromLocale).view());

    g_codeset = "ISO-8859-1";
    const QelString typed(text, QelString::kFromLocale);
    REQUIRE(typed.length() == text.size() + high);
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
                                       Command("replica set show <replica-set-name>"),
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
    std::string bare = text.substr(0, text.find('\0'));
    bare.erase(
        std::remove_if(bare.begin(), bare.end(), [](char byte) { return std::strchr(" \t\n", byte) != nullptr; }),
        bare.end());
    REQUIRE(words.tokens() == TarnAdminCmdTokens::kMaxTokens ? bare.starts_with(together) : bare == together);
    for (const Command& command : commands) {
        const MatchResult grade = command.matchCmd(words);
        REQUIRE(grade >= MatchExact && grade <= MatchNone);
        REQUIRE(grade == MatchNone || words.tokens() <= 7);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    requireConversions(text);
    requireWords(text);
    return 0;
}
