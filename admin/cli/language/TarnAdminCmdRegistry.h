/// Owns the commands, finds the one that a line names, and otherwise shows which ones it could have meant.
#pragma once

#include <cstdint>

#include "admin/cli/language/TarnAdminCmd.h"

class TarnAdminCmdRegistry {
  public:
    TarnAdminCmdRegistry() = default;
    TarnAdminCmdRegistry(const TarnAdminCmdRegistry&) = delete;
    TarnAdminCmdRegistry& operator=(const TarnAdminCmdRegistry&) = delete;
    ~TarnAdminCmdRegistry();

    /// Puts a command in front of the earlier ones: the latest is searched, listed and deleted first. Returns 0 and
    /// owns the command or, with the message written and the command still the caller's, kStatusNoMemory, also for a
    /// command without its pattern.
    [[nodiscard]] std::uint32_t registerCmd(TarnAdminCmd* command);

    /// The command to run for a line: the first that fits exactly, else the only one that fits abbreviated. Otherwise
    /// null, after listing on standard output the commands that come nearest.
    TarnAdminCmd* locateCmd(TarnAdminCmdTokens const& words) const;

    /// Calls `visit` with every command, in list order.
    template <class Visit>
    void forEach(Visit visit) const {
        for (const CmdNode* node = m_head; node != nullptr; node = node->next) {
            visit(static_cast<const TarnAdminCmd&>(*node->command));
        }
    }

    /// Deletes every command, in list order. Always 0.
    std::uint32_t shutdown();

  private:
    struct CmdNode {
        TarnAdminCmd* command;
        CmdNode* next;
    };

    void list(TarnAdminCmdTokens const& words, MatchResult best) const;

    CmdNode* m_head = nullptr;
};
