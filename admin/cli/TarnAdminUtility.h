/// The utility: holds the configuration and the commands, and runs the lines that come from the program's arguments,
/// from files and from the prompt.
#pragma once

#include <cstdint>
#include <string_view>

#include "admin/cli/config/TarnAdminConfig.h"
#include "admin/cli/language/TarnAdminCmdRegistry.h"
#include "admin/cli/shell/QelCmdLine.h"
#include "admin/cli/shell/TarnAdminPrompt.h"
#include "admin/cli/show/ClusterInfo.h"
#include "catalogue/QelString.h"

class TarnAdminLogin;
class TarnAdminSetInstance;

class TarnAdminUtility : public TarnAdminConfig {
  public:
    TarnAdminUtility() = default;
    ~TarnAdminUtility();

    /// Loads the configuration, sets the debug level, registers the commands and selects the default instance. Returns
    /// 0 or the status of the first failure.
    [[nodiscard]] std::uint32_t initialize();
    /// Releases the commands and with them the client handle. Always 0.
    std::uint32_t shutdown();
    /// Does what the program's arguments ask for. Call it after an initialize that returned 0. Returns the exit status.
    [[nodiscard]] std::uint32_t run(int argc, char** argv);

  private:
    [[nodiscard]] std::uint32_t setDebugLevel();
    [[nodiscard]] std::uint32_t registerCommands();
    /// Carries out -command or -file. Wipes a password that its value holds.
    [[nodiscard]] std::uint32_t runOption(const QelCmdLine::Option& option);

    /// Runs one command text. A failure's message is written before its status is returned.
    [[nodiscard]] std::uint32_t processCmd(const char* text);
    /// Whether a line is a login, and whether it holds a password.
    TarnAdminPrompt::Kind kindOf(const char* line) const;
    [[nodiscard]] std::uint32_t runCommand(TarnAdminCmd& command, const TarnAdminCmdTokens& words);
    /// Runs one line of the prompt or of a file, and cuts its line end off in place. A comment or an empty line does
    /// nothing. Returns kStatusEndOfInput for exit and quit, else 0 or the status of the failure.
    [[nodiscard]] std::uint32_t processLine(char* line);
    /// Runs lines from the prompt until they end. Always 0.
    [[nodiscard]] std::uint32_t processInteractiveMode();
    /// Run the lines of a terminal, and of what is no terminal. Both return whether kStatusEndOfInput ended the input.
    bool processEditedLines();
    bool processInputLines();
    TarnAdminCompletion complete(std::string_view before) const;
    /// Runs the lines of a file up to its end, an exit line or the first failure. An error while reading ends the file
    /// too, and is written to standard error.
    [[nodiscard]] std::uint32_t processCmdFile(const char* path);

    static const QelString m_commandOption;
    static const QelString m_fileOption;
    static const QelString m_interactiveOption;
    static const QelString m_helpOption;
    static const QelString m_prompt;
    static const QelString m_debugEnvName;

    TarnAdminCmdRegistry m_cmdRegistry;
    ClusterNames m_names;  // for completion
    TarnAdminLogin* m_loginCmd = nullptr;
    TarnAdminSetInstance* m_setInstanceCmd = nullptr;
};
