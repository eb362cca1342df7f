/// The utility: its configuration, its commands, and the ways in which lines reach them.
#pragma once

#include <cstdint>
#include <string_view>

#include "admin/cli/config/TarnAdminConfig.h"
#include "admin/cli/language/TarnAdminCmdRegistry.h"
#include "admin/cli/shell/QelCmdLine.h"
#include "admin/cli/shell/TarnAdminPrompt.h"
#include "catalogue/QelString.h"

class TarnAdminLogin;
class TarnAdminSetInstance;

class TarnAdminUtility : public TarnAdminConfig {
  public:
    TarnAdminUtility() = default;
    ~TarnAdminUtility();

    /// Loads the configuration, sets the debug level, registers the commands and selects the default instance. Returns
    /// 0 or the status of the first failure; what was set up until then goes with the object.
    [[nodiscard]] std::uint32_t initialize();
    /// Releases the commands and with them the client handle. Always 0.
    std::uint32_t shutdown();
    /// Does what the program's arguments ask for. Only after a successful initialize. Returns the exit status.
    [[nodiscard]] std::uint32_t run(int argc, char** argv);

  private:
    [[nodiscard]] std::uint32_t setDebugLevel();
    [[nodiscard]] std::uint32_t registerCommands();
    /// Carries out -command or -file. Wipes a password that its value holds.
    [[nodiscard]] std::uint32_t runOption(const QelCmdLine::Option& option);

    /// Runs one command text. A failure's message is written before its status is returned.
    [[nodiscard]] std::uint32_t processCmd(const char* text);
    /// Whether a line logs in, and holds a password.
    TarnAdminPrompt::Kind kindOf(const char* line) const;
    [[nodiscard]] std::uint32_t runCommand(TarnAdminCmd& command, const TarnAdminCmdTokens& words);
    /// Runs one line of the prompt or a file: comments and blank lines do nothing, exit and quit give
    /// kStatusEndOfInput, which ends the input, also when a command fails with it. Cuts the line end off in place.
    [[nodiscard]] std::uint32_t processLine(char* line);
    /// Runs lines from the prompt until they end. Always 0.
    [[nodiscard]] std::uint32_t processInteractiveMode();
    /// Both return whether kStatusEndOfInput ended the input.
    bool processEditedLines();
    bool processInputLines();
    TarnAdminCompletion complete(std::string_view before) const;
    /// Runs the lines of a file up to its end, an exit line or the first failure. An error while reading is an end that
    /// is told.
    [[nodiscard]] std::uint32_t processCmdFile(const char* path);

    static const QelString m_commandOption;
    static const QelString m_fileOption;
    static const QelString m_interactiveOption;
    static const QelString m_helpOption;
    static const QelString m_prompt;
    static const QelString m_debugEnvName;

    TarnAdminCmdRegistry m_cmdRegistry;
    TarnAdminLogin* m_loginCmd = nullptr;
    TarnAdminSetInstance* m_setInstanceCmd = nullptr;
};
