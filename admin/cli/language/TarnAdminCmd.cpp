#include "admin/cli/language/TarnAdminCmd.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <string_view>

#include "runtime/SecretBuffer.h"

namespace {

/// Whether a word of a line is a beginning of a keyword. A missing word is none.
bool abbreviates(const char* word, std::string_view keyword) {
    return word != nullptr && *word != '\0' && keyword.starts_with(word);
}

/// Gives `-realm` for `[-realm`: a bracket before a word of a pattern only says that the rest may be left out.
std::string_view withoutBracket(std::string_view word) {
    return word.substr(word.starts_with('[') ? 1 : 0);
}

}  // namespace

TarnAdminCmd::TarnAdminCmd(const char* format, Effect effect) : m_format(format), m_effect(effect) {
    assert(format != nullptr);
    static_cast<void>(m_formatTokens.set(format));  // a failure shows in hasPattern
}

MatchResult TarnAdminCmd::matchCmd(TarnAdminCmdTokens const& words) const {
    const std::int32_t patternCount = m_formatTokens.tokens();
    if (words.tokens() > patternCount) {
        return MatchNone;
    }
    MatchResult grade = MatchExact;
    for (std::int32_t i = 0; i < patternCount; ++i) {
        const std::string_view pattern = m_formatTokens[i];
        if (pattern.find('<') != std::string_view::npos) {
            if (words[i] == nullptr) {
                return MatchIncomplete;
            }
        } else if (pattern.find('[') != std::string_view::npos) {
            return matchTail(words, i, grade);
        } else if (!abbreviates(words[i], pattern)) {
            return i == 0 ? MatchNone : MatchIncomplete;
        } else if (std::strlen(words[i]) < pattern.length()) {
            grade = MatchAbbreviated;
        }
    }
    return words.tokens() == patternCount ? grade : MatchIncomplete;
}

MatchResult TarnAdminCmd::matchTail(TarnAdminCmdTokens const& words, std::int32_t tail, MatchResult grade) const {
    const std::int32_t patternCount = m_formatTokens.tokens();
    constexpr std::int32_t kKeywordAndValue = 2;  // words of that form
    if (patternCount - tail != kKeywordAndValue || words.tokens() == tail) {
        return grade;
    }
    if (words.tokens() != patternCount) {
        return MatchIncomplete;
    }
    return abbreviates(words[tail], withoutBracket(m_formatTokens[tail])) ? grade : MatchNone;
}

Continuation TarnAdminCmd::continuation(TarnAdminCmdTokens const& words) const {
    const std::int32_t count = words.tokens();
    SecretText line;  // a login's words may hold a password
    for (std::int32_t i = 0; i < std::max(count, m_formatTokens.tokens()); ++i) {
        const char* const word = i < count ? words[i] : m_formatTokens[i];
        line.append(i < count ? word : withoutBracket(word)).append(" ");
    }
    TarnAdminCmdTokens completed;
    if (count >= m_formatTokens.tokens() || completed.set(line.c_str()) != 0 || !fits(matchCmd(completed))) {
        return {};
    }
    const std::string_view word = m_formatTokens[count];
    const bool isLast = count + 1 == m_formatTokens.tokens();
    if (word.starts_with('[')) {
        const std::string_view tail = m_format + (m_formatTokens[count] - m_formatTokens[0]);
        return {tail, isLast ? std::string_view() : withoutBracket(word), true};
    }
    if (word.find('<') == std::string_view::npos) {
        return {word, word};
    }
    return {word.substr(0, word.find('>') + 1), {}};
}
