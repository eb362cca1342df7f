/// The base of every command: a pattern, how well a line fits it, and what to do for a line that fits.
///
/// A pattern is a line of words, such as `replica set list [-realm <realm>]`. A word that contains `<` stands for any
/// one word. Another word that contains `[` begins what may be left out: a value (`[password]`), or a keyword with its
/// value (`[-realm <realm>]`). All other words are keywords; a line may give just the beginning of one.
#pragma once

#include <cstdint>
#include <string_view>

#include "admin/cli/language/TarnAdminCmdTokens.h"
#include "admin/client-interface/olm_dsess_admin.h"

/// How well a line fits a pattern, best first.
enum MatchResult : std::int32_t {
    /// It fits, every keyword in full.
    MatchExact = 0,
    /// It fits, at least one keyword before the optional tail abbreviated.
    MatchAbbreviated = 1,
    /// The first keyword fits, but a later word is missing or wrong.
    MatchIncomplete = 2,
    /// The first keyword does not fit, there are too many words, or the optional keyword is another.
    MatchNone = 3,
};

/// Whether a line with this grade may run.
constexpr bool fits(MatchResult grade) {
    return grade == MatchExact || grade == MatchAbbreviated;
}

/// What the next word of an unfinished line may be.
struct Continuation {
    std::string_view shown;    ///< the next word of the pattern; empty: no word may follow
    std::string_view keyword;  ///< what to type for it; empty: a value, which only the user knows
    bool isOptional = false;   ///< the line is complete without it
};

class TarnAdminCmd {
  public:
    /// Whether a command only reads what the server has, or changes it.
    enum class Effect { kReads, kChanges };

    /// `format` is the pattern and must outlive the command. When memory runs out, that is written to standard error
    /// and the command has no pattern.
    explicit TarnAdminCmd(const char* format, Effect effect = Effect::kReads);
    TarnAdminCmd(const TarnAdminCmd&) = delete;
    TarnAdminCmd& operator=(const TarnAdminCmd&) = delete;
    virtual ~TarnAdminCmd() = default;

    /// Runs the command for the words of a line that fits it. Keywords may be abbreviated, so a command only looks at
    /// the words that are values, by their position. `handle` is of the selected instance, and null while there is
    /// none; `secInfo` is the identity in force. Returns 0, or a status that the caller shows. May throw
    /// std::bad_alloc.
    [[nodiscard]] virtual std::uint32_t executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                                                   TarnAdminCmdTokens const& tokens) = 0;

    MatchResult matchCmd(TarnAdminCmdTokens const& words) const;
    /// What may follow `words`. They begin a line of this command if, with the rest of the pattern added, they fit it.
    /// Throws std::bad_alloc.
    Continuation continuation(TarnAdminCmdTokens const& words) const;
    const char* format() const { return m_format; }
    Effect effect() const { return m_effect; }
    bool hasPattern() const { return m_formatTokens.tokens() > 0; }

  private:
    MatchResult matchTail(TarnAdminCmdTokens const& words, std::int32_t tail, MatchResult grade) const;

    const char* m_format;
    Effect m_effect;
    TarnAdminCmdTokens m_formatTokens;
};
