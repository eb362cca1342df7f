/// The entry point of vexiladmin.

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <new>

#include "admin/cli/vexiladmin/TarnAdminUtility.h"
#include "runtime/qel_messages.h"
#include "runtime/qel_msg.h"

namespace {

std::uint32_t runUtility(int argc, char** argv) {
    TarnAdminUtility utility;
    const std::uint32_t status = utility.initialize();
    return status != 0 ? status : utility.run(argc, argv);
}

/// Results that never reached their reader must not look like success. A reader that left on its own is no failure.
std::uint32_t flushOutput() {
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) {
        return 0;
    }
    if (errno == EPIPE) {
        return 0;
    }
    qel_fprintf(stderr, kStatusOutputLost);
    return kStatusOutputLost;
}

}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGPIPE, SIG_IGN);
    // The line editor reads the descriptor, the password prompt the stream: neither may swallow the other's line.
    std::setvbuf(stdin, nullptr, _IONBF, 0);
    qelmsg_init(argv[0], 0);
    std::uint32_t status = 0;
    try {
        status = runUtility(argc, argv);
    } catch (const std::bad_alloc&) {
        qel_fprintf(stderr, kStatusNoMemory);
        status = kStatusNoMemory;
    }
    if (status == 0) {
        status = flushOutput();
    }
    return static_cast<int>(status);
}
