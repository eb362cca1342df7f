/// The base class of the commands that keep nothing between two lines. Each source file of such a command includes it.
#pragma once

#include "admin/cli/commands/StatelessCommands.h"
#include "admin/cli/show/ServerAccess.h"
#include "catalogue/QelFailure.h"
#include "catalogue/QelString.h"

/// The base of these commands. The class that derives from it, `Command`, has its pattern in a static `m_cmdFormat` and
/// does its work in `execute`.
template <class Command, TarnAdminCmd::Effect commandEffect = TarnAdminCmd::Effect::kReads>
class StatelessCommand : public TarnAdminCmd {
  public:
    StatelessCommand() : TarnAdminCmd(Command::m_cmdFormat.data(), commandEffect) {}

    std::uint32_t executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                             TarnAdminCmdTokens const& tokens) final {
        return qel_status_of([&] { execute({handle, secInfo}, tokens); });
    }

    /// Runs the command for a line that matched it, as executeCmd does. Throws QelFailure, and std::bad_alloc.
    virtual void execute(const ServerAccess& server, TarnAdminCmdTokens const& words) const = 0;
};

template <class Command>
std::unique_ptr<TarnAdminCmd> createCommand() {
    return std::make_unique<Command>();
}
