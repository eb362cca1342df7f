#include "catalogue/qel_svc.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <ctime>
#include <new>
#include <string>
#include <string_view>

#include "catalogue/QelString.h"
#include "catalogue/qel_msg.h"
#include "runtime/QelFileDescriptor.h"
#include "runtime/QelTimeText.h"
#include "runtime/qel_io.h"

namespace {

bool insertsFit(std::uint32_t identifier, std::string_view insertFormat) {
    for (const QelMessage& message : qel_msg_table()) {
        if (message.identifier == identifier) {
            std::string expected;
            for (const char kind : std::string_view(message.kinds)) {
                expected += kind == 's' ? "%s" : "%d";
            }
            return insertFormat == expected;
        }
    }
    return true;  // the table lacks the message, so nothing is known of its inserts
}

std::string entryText(std::uint32_t identifier, std::string_view insertFormat, std::va_list inserts,
                      QelLanguage language) {
    std::string text = insertsFit(identifier, insertFormat) ? qel_msg_vformat(identifier, inserts, language)
                                                            : qel_msg_get_default_msg(identifier, nullptr);
    text.erase(text.find_last_not_of('\n') + 1);
    return text;
}

bool isStandardError(std::string_view path) {
    return path == "/dev/stderr";
}

bool appendToFile(const char* path, std::string_view line) {
    // If it were opened, it would have a position of its own, and what is written to standard error later would
    // overwrite the entry.
    if (isStandardError(path)) {
        return qel_write(STDERR_FILENO, line);
    }
    // Written at once, so that entries of processes that share the file do not mix. O_NONBLOCK: do not wait for the
    // reader of a FIFO.
    const QelFileDescriptor file(open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0600));
    return file.isOpen() && qel_write(file.get(), line);
}

/// syslog(3) does not tell when nobody listens.
bool isSyslogThere() {
    sockaddr_un address{AF_UNIX, _PATH_LOG};
    for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
        const QelFileDescriptor probe(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
            return true;
        }
    }
    return false;
}

/// Appends to the user's own file, where XDG has state files. Makes the folders that are missing.
bool appendToUserFile(std::string_view line) {
    std::string folder;
    std::size_t present = 0;  // of `folder`: what must be there
    if (const char* state = std::getenv("XDG_STATE_HOME"); state != nullptr && *state == '/') {
        folder = state;
    } else if (const char* home = std::getenv("HOME"); home != nullptr && *home == '/') {
        folder = home;
        present = folder.size();
        folder += "/.local/state";
    } else {
        return false;
    }
    folder += "/vexiladmin";
    for (std::size_t end = present; end != std::string::npos;) {
        end = folder.find('/', end + 1);
        mkdir(folder.substr(0, end).c_str(), 0700);
    }
    return appendToFile((folder + "/service.log").c_str(), line);
}

/// Returns whether the entry went to standard error.
bool writeEntry(QelSvcHandle handle, std::string_view file, int line, std::uint32_t severity, std::string_view text) {
    const std::string entry = std::string(handle == QelSvcHandle::kClient ? "client " : "deployment ")
                                  .append(file.substr(file.rfind('/') + 1))
                                  .append(":" + std::to_string(line) + " ")
                                  .append(text);
    const QelString visible(entry, QelString::kForDisplay);
    const char* program = qel_msg_program_name();
    const QelTimeText now(std::time(nullptr), "%Y-%m-%dT%H:%M:%SZ");
    const std::string full =
        std::string(now.data()) + " " + program + "[" + std::to_string(getpid()) + "] " + visible.data() + "\n";
    const char* path = std::getenv("QEL_SVC_LOG");
    if (path != nullptr && *path != '\0' && appendToFile(path, full)) {
        return isStandardError(path);
    }
    if (isSyslogThere()) {
        openlog(program, LOG_PID, LOG_USER);
        syslog(severity == kSvcErrorExit ? LOG_CRIT
               : severity == kSvcError   ? LOG_ERR
                                         : LOG_WARNING,
               "%s", visible.data());
        return false;
    }
    return !appendToUserFile(full) && qel_write(STDERR_FILENO, full);
}

/// Whether an entry is shown at the terminal too: it is a notice, or no log was set up by the user.
bool isForTerminal(std::uint32_t severity) {
    const char* path = std::getenv("QEL_SVC_LOG");
    return (severity == kSvcNotice || path == nullptr || *path == '\0') && isatty(STDERR_FILENO) != 0;
}

}  // namespace

void qel_svc_printf_withfile(QelSvcHandle handle, const char* file, int line, const char* insertFormat,
                             std::uint32_t /*component*/, std::uint32_t severity, std::uint32_t identifier,
                             ...) noexcept {
    std::va_list inserts;
    va_start(inserts, identifier);
    std::va_list again;
    va_copy(again, inserts);
    try {
        const std::string text = entryText(identifier, insertFormat, inserts, QelLanguage::kEnglish);
        if (!writeEntry(handle, file, line, severity, text) && isForTerminal(severity)) {
            const std::string shown = entryText(identifier, insertFormat, again, QelLanguage::kLocale) + "\n";
            static_cast<void>(qel_write(STDERR_FILENO, shown));  // there is nowhere else to say it
        }
    } catch (const std::bad_alloc&) {
        // The entry is lost.
    }
    va_end(again);
    va_end(inserts);
}
