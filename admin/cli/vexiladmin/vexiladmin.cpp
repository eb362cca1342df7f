/// The entry point of vexiladmin.

#include <sys/prctl.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>

#include "admin/cli/vexiladmin/TarnAdminUtility.h"
#include "runtime/qel_io.h"
#include "runtime/qel_messages.h"
#include "runtime/qel_msg.h"

namespace {

std::uint32_t runUtility(int argc, char** argv) {
    TarnAdminUtility utility;
    const std::uint32_t status = utility.initialize();
    return status != 0 ? status : utility.run(argc, argv);
}

/// Whether there is memory at all. Where it ran out before main, the C++ library has none set aside to throw with, and
/// would abort.
bool isThereMemory() {
    void* volatile block = std::malloc(1);  // volatile, or the compiler takes the answer for granted
    const bool found = block != nullptr;
    std::free(block);
    return found;
}

std::uint32_t noMemory() {
    qel_fprintf(stderr, kStatusNoMemory);
    return kStatusNoMemory;
}

/// Results that never reached their reader must not look like success. A reader that left on its own is no failure.
std::uint32_t flushOutput() {
    const int error = qel_flush_output();
    if (error == 0 || error == EPIPE) {
        return 0;
    }
    qel_fprintf(stderr, kStatusOutputLost);
    return kStatusOutputLost;
}

}  // namespace

int main(int argc, char** argv) {
    // No core dump: it would hold a password. A limit on its size does not stop one that is piped to a program.
    prctl(PR_SET_DUMPABLE, 0);
    const bool isOpen = qel_open_standard_descriptors();
    for (const int signal : {SIGPIPE, SIGXFSZ}) {
        std::signal(signal, SIG_IGN);  // the write fails, which is told
    }
    qel_set_up_output();
    qelmsg_init(argv[0], 0);
    if (!isOpen) {
        qel_fprintf(stderr, kStatusNoDescriptor);
        return static_cast<int>(kStatusNoDescriptor);
    }
    std::uint32_t status = 0;
    try {
        status = isThereMemory() ? runUtility(argc, argv) : noMemory();
    } catch (const std::bad_alloc&) {
        status = noMemory();
    }
    if (status == 0) {
        status = flushOutput();
    }
    return static_cast<int>(status);
}
