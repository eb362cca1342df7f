#include "admin/cli/shell/TarnAdminInterrupt.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>

#include "admin/client-interface/olm_dsess_admin.h"
#include "catalogue/qel_messages.h"
#include "catalogue/qel_msg.h"
#include "runtime/qel_io.h"

// Null when the client library lacks it. NOLINTNEXTLINE(readability-redundant-declaration): the header's is not weak
extern "C" __attribute__((weak)) void olm_dsess_admin_interrupt(std::int32_t on);

namespace {

// The handler reads the first two, and writes the next two.
volatile std::sig_atomic_t g_isRunning = 0;
volatile std::sig_atomic_t g_isAtPrompt = 0;
volatile std::sig_atomic_t g_came = 0;
volatile std::sig_atomic_t g_ending = 0;  // the signal that ends the program after the command, or 0
/// The message that the handler writes. It is made before the handler is installed, which could not make it.
std::array<char, 512> g_told;

void prepareTold() {
    if (g_told[0] != '\0') {
        return;
    }
    std::FILE* stream = fmemopen(g_told.data(), g_told.size(), "w");
    if (stream != nullptr) {
        qel_fprintf(stream, kMsgEndedBySignal);
        std::fclose(stream);
    }
}

void endNow(int signal) {
    // Writing the results may block. Then a second signal still ends the program.
    std::signal(signal, SIG_DFL);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal);
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
    qel_rescue_output();
    if (g_isRunning != 0 || g_isAtPrompt == 0) {
        static_cast<void>(qel_write(STDERR_FILENO, g_told.data()));  // there is nowhere else to say it
    }
    std::raise(signal);
}

void take(int signal) {
    const int error = errno;
    if (signal == SIGINT && isatty(STDERR_FILENO) != 0) {
        static_cast<void>(qel_write(STDERR_FILENO, "\n"));  // the terminal has echoed ^C
    }
    const bool isForPrompt = signal == SIGINT && g_isAtPrompt != 0;
    if (olm_dsess_admin_interrupt == nullptr || (!isForPrompt && (g_isRunning == 0 || g_ending != 0))) {
        endNow(signal);
    } else {
        g_came = 1;
        g_ending = isForPrompt ? g_ending : signal;
        olm_dsess_admin_interrupt(1);
    }
    errno = error;
}

}  // namespace

TarnAdminInterrupt::TarnAdminInterrupt(Place place) : m_placeBefore(g_isAtPrompt != 0 ? Place::kPrompt : Place::kRun) {
    prepareTold();
    g_isAtPrompt = place == Place::kPrompt ? 1 : 0;
    for (std::size_t index = 0; index < kSignals.size(); ++index) {
        sigaction(kSignals[index], nullptr, &m_before[index]);
        if (m_before[index].sa_handler != SIG_IGN) {
            struct sigaction action {};
            action.sa_handler = take;
            action.sa_flags = SA_RESTART;
            sigaction(kSignals[index], &action, nullptr);
        }
    }
}

TarnAdminInterrupt::~TarnAdminInterrupt() {
    for (std::size_t index = 0; index < kSignals.size(); ++index) {
        sigaction(kSignals[index], &m_before[index], nullptr);
    }
    g_isAtPrompt = m_placeBefore == Place::kPrompt ? 1 : 0;
}

TarnAdminInterrupt::Running::Running(bool runs) : m_before(g_isRunning != 0) {
    g_isRunning = runs ? 1 : 0;
}

TarnAdminInterrupt::Running::~Running() {
    g_isRunning = m_before ? 1 : 0;
}

bool TarnAdminInterrupt::came() {
    return g_came != 0;
}

void TarnAdminInterrupt::note() {
    g_came = 1;
    if (g_isAtPrompt == 0) {
        g_ending = SIGINT;
    }
}

void TarnAdminInterrupt::forget() {
    g_came = 0;
    if (olm_dsess_admin_interrupt != nullptr) {
        olm_dsess_admin_interrupt(0);
    }
}

void TarnAdminInterrupt::endProgram(bool isTold) {
    if (g_ending == 0) {
        return;
    }
    qel_flush_output();
    if (!isTold) {
        qel_fprintf(stderr, kMsgEndedBySignal);
    }
    std::signal(g_ending, SIG_DFL);
    std::raise(g_ending);
}
