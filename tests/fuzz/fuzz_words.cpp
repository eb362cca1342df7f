/// Whatever is typed: it is taken as it is and shows no control, and its words can be matched with every kind of
/// pattern.

#include <cstdint>
#include <cstring>
#include <string>

#include "Require.h"
#include "admin/cli/vexiladmin/TarnAdminCmd.h"
#include "runtime/QelString.h"

namespace {

struct Command : TarnAdminCmd {
    using TarnAdminCmd::TarnAdminCmd;
    std::uint32_t executeCmd(void* const&, olm_dsess_admin_sec_info_t const&, TarnAdminCmdTokens const&) override {
        return 0;
    }
};

void requireConversions(std::string_view text) {
    REQUIRE(QelString(text, QelString::kFromLocale).view() == text);
    const QelString visible(text, QelString::kForDisplay);
    const std::string_view shown = visible.view();
    REQUIRE(shown.find_first_of("\r\x1B\x7F") == shown.npos && shown.find("\u202E") == shown.npos);
    REQUIRE(shown.find('\n') >= shown.size() - 1);
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
