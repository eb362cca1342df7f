/// The base of every command: a pattern, how well a line fits it, and what to do for a line that does.
///
/// A pattern's words, in this order of tests: one that contains `<` stands for any one word; one that contains `[`
/// opens the optional tail, which is a value (`[password]`) or a keyword with its value (`[-realm <realm>]`); any other
/// is a keyword, of which a line may hold any beginning.
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

/// What may stand next in the beginning of a line.
struct Continuation {
    std::string_view shown;    ///< as the pattern has it; empty: nothing may
    std::string_view keyword;  ///< empty: it is a value
    bool isOptional = false;
};

class TarnAdminCmd {
  public:
    /// Whether a command only reads what the server has, or may change it.
    enum class Effect { kReads, kChanges };

    /// `format`, the pattern, must outlive the command. When memory runs out the message is written, and the command
    /// has no pattern.
    explicit TarnAdminCmd(const char* format, Effect effect = Effect::kReads);
    TarnAdminCmd(const TarnAdminCmd&) = delete;
    TarnAdminCmd& operator=(const TarnAdminCmd&) = delete;
    virtual ~TarnAdminCmd() = default;

    /// Runs the command for a line that matched it, exactly or abbreviated. Keywords stand in `tokens` as they were
    /// typed, so a command reads values by position and counts words, nothing else. `handle` and `secInfo` are those in
    /// force when the line runs. Returns 0 or a status that the caller shows; std::bad_alloc may pass through.
    [[nodiscard]] virtual std::uint32_t executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                                                   TarnAdminCmdTokens const& tokens) = 0;

    MatchResult matchCmd(TarnAdminCmdTokens const& words) const;
    /// What the pattern has behind `words`. They are the beginning of a line of this command if the line fits once the
    /// rest of the pattern is added to it. Throws std::bad_alloc.
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
