#include "runtime/qel_io.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>

namespace {

int g_outputError = 0;
bool g_isLineOutput = false;

/// What stdout holds: the bytes from `g_taken` to `g_filled`. A signal handler may write them out at any moment
/// (qel_rescue_output), so the bytes are put there before `g_filled` grows.
std::array<char, 65536> g_output;
std::atomic<std::size_t> g_filled = 0;
std::atomic<std::size_t> g_taken = 0;
static_assert(std::atomic<std::size_t>::is_always_lock_free);

/// After a call failed: whether it is to be tried again. Waits until the descriptor is ready if that was lacking.
bool tryAgain(int descriptor, short event) {
    if (errno == EAGAIN) {
        pollfd waited{descriptor, event, 0};
        return poll(&waited, 1, -1) >= 0 || errno == EINTR;
    }
    return errno == EINTR;
}

/// Writes out what stdout holds, and empties it even on a failure. Returns false then, with errno.
bool writeOutput() noexcept {
    bool isWritten = true;
    while (isWritten && g_taken < g_filled) {
        const ssize_t written = write(STDOUT_FILENO, g_output.data() + g_taken, g_filled - g_taken);
        g_taken += written > 0 ? static_cast<std::size_t>(written) : 0;
        isWritten = written >= 0 || tryAgain(STDOUT_FILENO, POLLOUT);
    }
    g_filled = 0;
    g_taken = 0;
    return isWritten;
}

bool keepError(bool isWritten) noexcept {
    if (!isWritten && g_outputError == 0) {
        g_outputError = errno;
    }
    return isWritten;
}

ssize_t takeOutput(void* /*cookie*/, const char* bytes, std::size_t size) {
    for (std::string_view left(bytes, size); !left.empty();) {
        if (g_filled == g_output.size() && !keepError(writeOutput())) {
            return 0;
        }
        const std::size_t count = left.copy(g_output.data() + g_filled, g_output.size() - g_filled);
        g_filled += count;
        left.remove_prefix(count);
    }
    const bool isWhole = g_isLineOutput && std::memchr(bytes, '\n', size) != nullptr;
    return isWhole && !keepError(writeOutput()) ? 0 : static_cast<ssize_t>(size);
}

ssize_t writeError(void* /*cookie*/, const char* bytes, std::size_t size) {
    return qel_write(STDERR_FILENO, {bytes, size}) ? static_cast<ssize_t>(size) : 0;
}

/// Puts an unbuffered stream in the place of another, if there is memory for it.
void replace(std::FILE*& stream, cookie_write_function_t* write) {
    cookie_io_functions_t functions{};
    functions.write = write;
    if (std::FILE* made = fopencookie(nullptr, "w", functions); made != nullptr) {
        std::setvbuf(made, nullptr, _IONBF, 0);
        stream = made;
    }
}

}  // namespace

ssize_t qel_read(int descriptor, void* buffer, std::size_t size) noexcept {
    for (;;) {
        const ssize_t got = read(descriptor, buffer, size);
        if (got >= 0 || !tryAgain(descriptor, POLLIN)) {
            return got;
        }
    }
}

bool qel_write(int descriptor, std::string_view bytes) noexcept {
    while (!bytes.empty()) {
        const ssize_t written = write(descriptor, bytes.data(), bytes.size());
        if (written >= 0) {
            bytes.remove_prefix(static_cast<std::size_t>(written));
        } else if (!tryAgain(descriptor, POLLOUT)) {
            return false;
        }
    }
    return true;
}

bool qel_open_standard_descriptors() noexcept {
    for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        // A descriptor opened with O_PATH can be neither read nor written. If it is of a symbolic link, opening
        // /dev/stdin, which leads through /proc, fails too. Without /proc the root folder does.
        if (fcntl(descriptor, F_GETFD) < 0 && open("/proc/self", O_PATH | O_NOFOLLOW) != descriptor &&
            open("/", O_PATH) != descriptor) {
            return false;
        }
    }
    return true;
}

void qel_set_up_output() noexcept {
    g_isLineOutput = isatty(STDOUT_FILENO) != 0;
    replace(stdout, takeOutput);
    replace(stderr, writeError);
}

void qel_flush_output() noexcept {
    // The first does nothing unless the stream is still the C library's.
    keepError(std::fflush(stdout) == 0);
    keepError(writeOutput());
}

int qel_output_error() noexcept {
    return g_outputError;
}

void qel_rescue_output() noexcept {
    writeOutput();
}
