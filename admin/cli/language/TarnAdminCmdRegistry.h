/// Owns the commands, finds the one that a line names, and lists those that it could have meant when there is none.
#pragma once

#include <cstdint>

#include "admin/cli/language/TarnAdminCmd.h"

class TarnAdminCmdRegistry {
  public:
    TarnAdminCmdRegistry() = default;
    TarnAdminCmdRegistry(const TarnAdminCmdRegistry&) = delete;
    TarnAdminCmdRegistry& operator=(const TarnAdminCmdRegistry&) = delete;
    ~TarnAdminCmdRegistry();

    /// Puts a command, which is not null, in front of the earlier ones: the latest is searched, listed and deleted
    /// first. Returns 0 and owns the command from then on. Otherwise returns kStatusNoMemory, having written that to
    /// standard error: there was no memory for the entry, or had been none for the command's pattern.
    [[nodiscard]] std::uint32_t registerCmd(TarnAdminCmd* command);

    /// The command to run for a line: the first that fits exactly, or else the only one that fits abbreviated. When
    /// there is none, writes a listing of the commands that come nearest to standard output and returns null.
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
