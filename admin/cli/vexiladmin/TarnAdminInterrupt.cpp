#include "admin/cli/vexiladmin/TarnAdminInterrupt.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>

#include "admin/client-interface/olm_dsess_admin.h"

// Null when the client library lacks it. NOLINTNEXTLINE(readability-redundant-declaration): the header's is not weak
extern "C" __attribute__((weak)) void olm_dsess_admin_interrupt(std::int32_t on);

namespace {

volatile std::sig_atomic_t g_came = 0;

void endWait(int /*signal*/) {
    const int error = errno;
    g_came = 1;
    olm_dsess_admin_interrupt(1);
    if (isatty(STDERR_FILENO) != 0) {
        // Behind the terminal's ^C.
        [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, "\n", 1);
    }
    errno = error;
}

}  // namespace

TarnAdminInterrupt::TarnAdminInterrupt(Second second) {
    sigaction(SIGINT, nullptr, &m_before);
    if (olm_dsess_admin_interrupt == nullptr || m_before.sa_handler == SIG_IGN) {
        return;
    }
    struct sigaction action {};
    action.sa_handler = endWait;
    action.sa_flags = SA_RESTART | (second == Second::kEndsProgram ? SA_RESETHAND : 0);
    sigaction(SIGINT, &action, nullptr);
}

TarnAdminInterrupt::~TarnAdminInterrupt() {
    sigaction(SIGINT, &m_before, nullptr);
}

bool TarnAdminInterrupt::came() {
    return g_came != 0;
}

void TarnAdminInterrupt::note() {
    g_came = 1;
}

void TarnAdminInterrupt::forget() {
    g_came = 0;
    if (olm_dsess_admin_interrupt != nullptr) {
        olm_dsess_admin_interrupt(0);
    }
}

void TarnAdminInterrupt::endProgram() {
    std::fflush(nullptr);
    struct sigaction action {};
    sigaction(SIGINT, nullptr, &action);
    if (action.sa_handler != SIG_IGN) {
        std::signal(SIGINT, SIG_DFL);
        std::raise(SIGINT);
    }
}
