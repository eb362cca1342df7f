#include "runtime/qel_io.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>

namespace {

std::FILE* g_descriptorOutput = stdout;
int g_outputError = 0;
std::array<char, 65536> g_outputBuffer;

/// After a call failed: whether it is to be tried again. Waits until the descriptor is ready if that was lacking.
bool tryAgain(int descriptor, short event) {
    if (errno == EAGAIN) {
        pollfd waited{descriptor, event, 0};
        return poll(&waited, 1, -1) >= 0 || errno == EINTR;
    }
    return errno == EINTR;
}

ssize_t writeStream(void* cookie, const char* bytes, std::size_t size) {
    const auto descriptor = static_cast<int>(reinterpret_cast<std::intptr_t>(cookie));
    if (qel_write(descriptor, {bytes, size})) {
        return static_cast<ssize_t>(size);
    }
    if (descriptor == STDOUT_FILENO && g_outputError == 0) {
        g_outputError = errno;
    }
    return 0;
}

std::FILE* openStream(std::intptr_t descriptor) {
    cookie_io_functions_t functions{};
    functions.write = writeStream;
    return fopencookie(reinterpret_cast<void*>(descriptor), "w", functions);  // NOLINT(performance-no-int-to-ptr)
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
        // A path can be neither read nor written, and this one is always there.
        if (fcntl(descriptor, F_GETFD) < 0 && open("/", O_PATH) != descriptor) {
            return false;
        }
    }
    return true;
}

void qel_set_up_output() noexcept {
    if (std::FILE* stream = openStream(STDOUT_FILENO); stream != nullptr) {
        std::setvbuf(stream, g_outputBuffer.data(), isatty(STDOUT_FILENO) != 0 ? _IOLBF : _IOFBF,
                     g_outputBuffer.size());
        stdout = stream;
    }
    if (std::FILE* stream = openStream(STDERR_FILENO); stream != nullptr) {
        std::setvbuf(stream, nullptr, _IONBF, 0);
        stderr = stream;
    }
}

std::FILE* qel_descriptor_output() noexcept {
    return g_descriptorOutput;
}

int qel_flush_output() noexcept {
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) {
        return 0;
    }
    return g_outputError != 0 ? g_outputError : errno;
}
