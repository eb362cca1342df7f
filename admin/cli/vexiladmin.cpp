/// The entry point of vexiladmin.

#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>

#include "admin/cli/TarnAdminUtility.h"
#include "catalogue/qel_messages.h"
#include "catalogue/qel_msg.h"
#include "runtime/qel_io.h"

namespace {

std::uint32_t runUtility(int argc, char** argv) {
    TarnAdminUtility utility;
    const std::uint32_t status = utility.initialize();
    return status != 0 ? status : utility.run(argc, argv);
}

std::uint32_t noMemory() {
    qel_flush_output();
    qel_fprintf(stderr, kStatusNoMemory);
    return kStatusNoMemory;
}

/// Ends the program when memory runs out so far that not even an exception can be made. The C++ runtime would abort.
[[noreturn]] void endWithoutMemory() {
    if (const std::exception_ptr thrown = std::current_exception(); thrown != nullptr) {
        try {
            std::rethrow_exception(thrown);
        } catch (const std::bad_alloc&) {
            // Ends below.
        } catch (...) {
            std::abort();
        }
    }
    _exit(static_cast<int>(noMemory() & 0xFF));
}

// It runs before a sanitizer is set up.
__attribute__((no_sanitize("address", "thread", "undefined"))) void setTerminate(int /*argc*/, char** /*argv*/,
                                                                                 char** /*environment*/) {
    std::set_terminate(endWithoutMemory);
}

/// Called before the shared libraries set themselves up, which may throw too (gABI, "Initialization and Termination
/// Functions").
[[gnu::section(".preinit_array"), gnu::used]] void (*const g_beforeLibraries)(int, char**, char**) = setTerminate;

/// Writes out the results that are left. Returns a status when they could not be written: that must not look like
/// success. A reader that has gone, such as head(1), is no failure.
std::uint32_t flushOutput() {
    qel_flush_output();
    const int error = qel_output_error();
    if (error == 0 || error == EPIPE) {
        return 0;
    }
    qel_fprintf(stderr, kStatusOutputLost);
    return kStatusOutputLost;
}

}  // namespace

int main(int argc, char** argv) {
    // No core dump, which would hold a password. (A limit of 0 bytes would not stop one that is piped to a program.)
    prctl(PR_SET_DUMPABLE, 0);
    const bool isOpen = qel_open_standard_descriptors();
    for (const int signal : {SIGPIPE, SIGXFSZ}) {
        std::signal(signal, SIG_IGN);  // the write fails, which is told
    }
    std::uint32_t status = kStatusNoDescriptor;
    try {
        qel_set_up_output();
        qelmsg_init(argv[0], 0);
        if (isOpen) {
            status = runUtility(argc, argv);
        } else {
            qel_fprintf(stderr, status);
        }
    } catch (const std::bad_alloc&) {
        status = noMemory();
    }
    const std::uint32_t lost = flushOutput();
    return static_cast<int>(status != 0 ? status : lost);
}
