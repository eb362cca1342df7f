#include "admin/client/request/Interruption.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <new>

namespace olmdsess {

namespace interruption {

namespace {

// The flag tells, the descriptor only wakes: whoever waits looks at the flag after each `rest`.
std::atomic<bool> g_on{false};
std::atomic<int> g_descriptor{-1};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

int makeEvent() noexcept {
    return eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}

/// In a child process after fork(2): puts an event of its own in the place of the parent's, which it would wake.
void separate() noexcept {
    const int own = makeEvent();
    if (own >= 0) {
        dup3(own, g_descriptor, O_CLOEXEC);
        close(own);
    } else {
        g_descriptor = -1;  // its waits end only when their time is up
    }
}

}  // namespace

// The descriptor stays open as long as the process: a signal handler may be about to write to it.
void prepare() {
    if (g_descriptor < 0) {
        const int descriptor = makeEvent();
        if (descriptor < 0 || pthread_atfork(nullptr, nullptr, separate) != 0) {
            throw std::bad_alloc();
        }
        g_descriptor = descriptor;
    }
}

void set(bool on) noexcept {
    const int error = errno;
    g_on = on;
    if (on && g_descriptor >= 0) {
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = write(g_descriptor, &one, sizeof(one));
    }
    errno = error;
}

bool isOn() noexcept {
    return g_on;
}

bool wait(std::chrono::milliseconds patience) noexcept {
    pollfd interrupted{g_descriptor, POLLIN, 0};
    if (!isOn() && poll(&interrupted, 1, static_cast<int>(patience.count())) > 0) {
        rest();
    }
    return isOn();
}

int descriptor() noexcept {
    return g_descriptor;
}

void rest() noexcept {
    std::uint64_t count = 0;
    [[maybe_unused]] const ssize_t got = read(g_descriptor, &count, sizeof(count));
}

}  // namespace interruption

}  // namespace olmdsess
