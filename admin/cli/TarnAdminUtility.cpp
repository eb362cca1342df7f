#include "admin/cli/TarnAdminUtility.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "admin/cli/commands/StatelessCommands.h"
#include "admin/cli/commands/TarnAdminListInstances.h"
#include "admin/cli/commands/TarnAdminLogin.h"
#include "admin/cli/commands/TarnAdminSetInstance.h"
#include "admin/cli/language/Values.h"
#include "admin/cli/shell/LineReader.h"
#include "admin/cli/shell/TarnAdminInterrupt.h"
#include "admin/cli/shell/TarnAdminTrace.h"
#include "catalogue/QelFailure.h"
#include "catalogue/qel_messages.h"
#include "catalogue/qel_msg.h"
#include "catalogue/qel_path.h"
#include "catalogue/qel_strtol.h"
#include "runtime/QelFileDescriptor.h"
#include "runtime/SecretBuffer.h"
#include "runtime/qel_ascii.h"
#include "runtime/qel_io.h"

constinit const QelString TarnAdminUtility::m_commandOption(QelLiteral("command"));
constinit const QelString TarnAdminUtility::m_fileOption(QelLiteral("file"));
constinit const QelString TarnAdminUtility::m_interactiveOption(QelLiteral("interactive"));
constinit const QelString TarnAdminUtility::m_helpOption(QelLiteral("help"));
constinit const QelString TarnAdminUtility::m_prompt(QelLiteral("vexiladmin> "));
constinit const QelString TarnAdminUtility::m_debugEnvName(QelLiteral("VEXILADMIN_DEBUG"));

namespace {

constexpr char kConfigFileName[] = "vexilclicfg.conf";
/// The longest line of a command file, in bytes. A longer one is cut into pieces, and each piece is run as a line.
constexpr std::size_t kLongestFileLine = 4095;

/// Hands a command over to the registry. Throws QelFailure.
template <class Command>
Command* add(TarnAdminCmdRegistry& registry, std::unique_ptr<Command> command) {
    qel_require(registry.registerCmd(command.get()));
    return command.release();
}

template <class... Command>
void addStateless(TarnAdminCmdRegistry& registry, CommandList<Command...> /*commands*/) {
    static_cast<void>((add(registry, createCommand<Command>()), ...));
}

/// Whether standard output and standard error are the same file or terminal.
bool isOneStream() {
    struct stat output {};
    struct stat error {};
    return fstat(STDOUT_FILENO, &output) == 0 && fstat(STDERR_FILENO, &error) == 0 && output.st_dev == error.st_dev &&
           output.st_ino == error.st_ino;
}

/// Shows a status as a message on a line of its own, after all results. `hasCause`: the last trace line has told why,
/// and the message refers to that if both come out in one place.
void printStatus(std::uint32_t status, bool hasCause = false) {
    constexpr std::array kCausedFailures = {kStatusNoLocation, kStatusTlsFailure, kStatusRequestRefused,
                                            kStatusAnswerNotUnderstood, kStatusKeyFile};
    const bool isCaused = std::find(kCausedFailures.begin(), kCausedFailures.end(), status) != kCausedFailures.end();
    qel_flush_output();
    qel_print_status(stderr, status, isCaused && hasCause && isOneStream() ? kMsgCauseBefore : 0);
}

void printUsage(const QelCmdLine& cmdLine) {
    QelStringRef name;
    cmdLine.getCmdName(&name);
    qel_fprintf(stdout, kMsgUsage, QelString(name).data());
}

std::uint32_t refuseInvalidOptions(QelCmdLine& cmdLine) {
    const auto& invalid = cmdLine.invalidOptions();
    if (invalid.size() == 0) {
        return 0;
    }
    printUsage(cmdLine);
    invalid.forEachKey([](const QelString& option) {
        qel_fprintf(stdout, kMsgUnknownOption, option.data());
        std::fputs("\n", stdout);
    });
    return kStatusUnknownName;
}

/// Returns a status as it is. What is wrong with a configuration stands in the service log. Without memory the log
/// stays empty, so that is shown here.
std::uint32_t showNoMemory(std::uint32_t status) {
    if (status == kStatusNoMemory) {
        printStatus(status);
    }
    return status;
}

/// Overwrites the stack below the caller: calls that have returned left there what they worked with, such as a
/// password.
[[gnu::noinline]] void wipeDeadStack() {
    char area[128 * 1024];
    explicit_bzero(area, sizeof(area));
}

bool isEndWord(const char* line) {
    return qel_ascii_equal(line, "exit") || qel_ascii_equal(line, "quit");
}

}  // namespace

TarnAdminUtility::~TarnAdminUtility() {
    ClusterInfo::keepNamesIn(nullptr);
    shutdown();
}

std::uint32_t TarnAdminUtility::initialize() {
    shutdown();
    QelString path = qel_get_path(kPathConfiguration);
    path.append(kConfigFileName);
    return qel_status_of([&] {
        qel_require(showNoMemory(TarnAdminConfig::initialize(path.data(), true)));
        qel_require(setDebugLevel());
        qel_require(registerCommands());
        qel_require(showNoMemory(m_setInstanceCmd->initialize()));
    });
}

std::uint32_t TarnAdminUtility::shutdown() {
    m_loginCmd = nullptr;
    m_setInstanceCmd = nullptr;
    return m_cmdRegistry.shutdown();
}

std::uint32_t TarnAdminUtility::setDebugLevel() {
    const char* value = std::getenv(m_debugEnvName.data());
    if (value == nullptr || qel_strtol(value, 10, &g_debugLevel) == 0) {
        return 0;
    }
    qel_fprintf(stderr, kMsgInvalidNumber, value, m_debugEnvName.data(), m_debugEnvName.data());
    return kStatusInvalidNumber;
}

// The latest registered is listed first, so the order here is that of the listing, reversed.
std::uint32_t TarnAdminUtility::registerCommands() {
    try {
        return qel_status_of([this] {
            addStateless(m_cmdRegistry, StatelessCommands());
            add(m_cmdRegistry, std::make_unique<TarnAdminListInstances>(this));
            m_loginCmd = add(m_cmdRegistry, std::make_unique<TarnAdminLogin>());
            m_setInstanceCmd = add(m_cmdRegistry, std::make_unique<TarnAdminSetInstance>(this));
        });
    } catch (const std::bad_alloc&) {
        qel_fprintf(stderr, kStatusNoMemory);
        return kStatusNoMemory;
    }
}

std::uint32_t TarnAdminUtility::run(int argc, char** argv) {
    assert(m_loginCmd != nullptr && m_setInstanceCmd != nullptr);
    QelCmdLine cmdLine;
    if (const std::uint32_t status = cmdLine.initialize(argc, argv); status != 0) {
        printStatus(status);
        return status;
    }
    if (cmdLine.findOption(m_helpOption, nullptr) == 0) {
        printUsage(cmdLine);
        qel_fprintf(stdout, kMsgUsageOptions);
        return 0;
    }
    for (const QelString* option : {&m_commandOption, &m_fileOption, &m_interactiveOption}) {
        cmdLine.validated(option->view());
    }
    if (const std::uint32_t status = refuseInvalidOptions(cmdLine); status != 0) {
        return status;
    }
    const TarnAdminInterrupt interrupt(TarnAdminInterrupt::Place::kRun);
    bool hasRun = false;
    for (const QelCmdLine::Option& option : cmdLine.options()) {
        if (option.value != nullptr && option.name != m_interactiveOption.view()) {
            hasRun = true;
            if (const std::uint32_t status = runOption(option); status != 0) {
                return status;
            }
        }
    }
    QelStringRef interactive;
    if (cmdLine.findOption(m_interactiveOption, &interactive) != 0) {
        return hasRun ? 0 : processInteractiveMode();
    }
    switch (interactive.empty() ? '\0' : qel_ascii_upper(interactive.data()[0])) {
        case 'Y':
            return processInteractiveMode();
        case 'N':
            return 0;
        default:
            return refuseValue(m_interactiveOption.data());
    }
}

std::uint32_t TarnAdminUtility::runOption(const QelCmdLine::Option& option) {
    if (option.name == m_fileOption.view()) {
        return processCmdFile(option.value);
    }
    const std::uint32_t status = processCmd(option.value);
    if (kindOf(option.value) == TarnAdminPrompt::Kind::kLoginWithPassword) {
        explicit_bzero(option.value, std::strlen(option.value));
    }
    return status;
}

std::uint32_t TarnAdminUtility::processCmd(const char* text) {
    QelString line;
    TarnAdminCmdTokens words;
    std::uint32_t status = line.set(text, QelString::kFromLocale);
    if (status == 0) {
        olmdsess_admin_client_trace(3, "Processing the command: %s\n", line.data());
        status = words.set(line.data());
    }
    if (status != 0) {
        qel_fprintf(stderr, status);
        return status;
    }
    TarnAdminCmd* command = m_cmdRegistry.locateCmd(words);
    if (command == nullptr) {
        return kStatusNoCommand;
    }
    return runCommand(*command, words);
}

std::uint32_t TarnAdminUtility::runCommand(TarnAdminCmd& command, const TarnAdminCmdTokens& words) {
    if (command.effect() == TarnAdminCmd::Effect::kChanges) {
        qel_flush_output();  // whatever ends the run now, the results of the commands before are shown
    }
    g_toldCause = false;
    std::uint32_t status = 0;
    try {
        const TarnAdminInterrupt::Running running;
        status = command.executeCmd(m_setInstanceCmd->handle(), m_loginCmd->secInfo(), words);
    } catch (const std::bad_alloc&) {
        status = kStatusNoMemory;
    }
    if (m_loginCmd->secInfo().password != nullptr) {
        wipeDeadStack();
    }
    if (status != 0) {
        printStatus(status, g_toldCause);
    }
    TarnAdminInterrupt::endProgram(status != 0);
    return status;
}

TarnAdminPrompt::Kind TarnAdminUtility::kindOf(const char* line) const {
    TarnAdminCmdTokens words;
    if (words.set(line) != 0 || !fits(m_loginCmd->matchCmd(words))) {
        return TarnAdminPrompt::Kind::kOther;
    }
    return words.tokens() == 3 ? TarnAdminPrompt::Kind::kLoginWithPassword : TarnAdminPrompt::Kind::kLogin;
}

std::uint32_t TarnAdminUtility::processLine(char* line) {
    if (line == nullptr || line[0] == '\0' || line[0] == '#') {
        return 0;
    }
    std::size_t length = std::strlen(line);
    while (length > 0 && (line[length - 1] == '\n' || line[length - 1] == '\r')) {
        line[--length] = '\0';
    }
    if (isEndWord(line)) {
        return kStatusEndOfInput;
    }
    return length == 0 ? 0 : processCmd(line);
}

std::uint32_t TarnAdminUtility::processInteractiveMode() {
    // The line editor drops bytes that are no characters of the locale, which would change a name. So only a terminal
    // gets it.
    const bool exited = isatty(STDIN_FILENO) != 0 ? processEditedLines() : processInputLines();
    if (!exited) {
        std::fputs("\n", stdout);
    }
    return 0;
}

bool TarnAdminUtility::processEditedLines() {
    const TarnAdminInterrupt interrupt(TarnAdminInterrupt::Place::kPrompt);
    TarnAdminPrompt prompt(m_prompt.view(), [this](std::string_view before) { return complete(before); });
    ClusterInfo::keepNamesIn(&m_names);
    SecretText line;
    bool exited = false;
    while (!exited && prompt.read(line)) {
        exited = processLine(line.data()) == kStatusEndOfInput;
        line.resize(std::strlen(line.c_str()));
        prompt.remember(line, kindOf(line.c_str()));
    }
    return exited;
}

TarnAdminCompletion TarnAdminUtility::complete(std::string_view before) const {
    return completeLine(m_cmdRegistry, before, [this](std::string_view placeholder) {
        if (placeholder == "<realm-name>" || placeholder == "<realm>") {
            return m_names.realms;
        }
        if (placeholder == "<replica-set-name>") {
            return m_names.replicaSets;
        }
        std::vector<std::string> names;
        if (placeholder == "<instance>") {
            instanceTable().forEachKey([&](const QelString& instance) { names.emplace_back(instance.view()); });
        }
        return names;
    });
}

bool TarnAdminUtility::processInputLines() {
    // A login reads its password from the line that follows.
    LineReader input(STDIN_FILENO, LineReader::kNoLimit, LineReader::Ahead::kNever);
    SecretText line;
    bool exited = false;
    while (!exited && input.next(line)) {
        exited = processLine(line.data()) == kStatusEndOfInput;
    }
    if (input.error() != 0) {
        qel_flush_output();
        qel_fprintf(stderr, kMsgInputRead, input.error());
    }
    return exited;
}

std::uint32_t TarnAdminUtility::processCmdFile(const char* path) {
    const QelFileDescriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!file.isOpen()) {
        const int error = errno;
        qel_flush_output();
        qel_fprintf(stderr, kMsgCommandFileOpen, path, error);
        return kStatusCommandFile;
    }
    // What is no regular file may be standard input under another name. A login reads its password from there, so
    // nothing may be read ahead.
    struct stat info {};
    const bool isRegular = fstat(file.get(), &info) == 0 && S_ISREG(info.st_mode);
    LineReader input(file.get(), kLongestFileLine, isRegular ? LineReader::Ahead::kAllowed : LineReader::Ahead::kNever);
    SecretText line;
    while (input.next(line)) {
        const std::uint32_t status = processLine(line.data());
        if (status != 0) {
            return status == kStatusEndOfInput ? 0 : status;
        }
    }
    if (input.error() != 0) {
        qel_flush_output();
        qel_fprintf(stderr, kMsgCommandFileRead, path, input.error());
    }
    return 0;
}
