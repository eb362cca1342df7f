#include "runtime/qel_random.h"

#include <sys/random.h>

#include <cerrno>

bool qel_get_random_bytes(void* buffer, std::size_t length) noexcept {
    auto* bytes = static_cast<unsigned char*>(buffer);
    while (length > 0) {
        const ssize_t drawn = getrandom(bytes, length, 0);
        if (drawn > 0) {
            bytes += drawn;
            length -= static_cast<std::size_t>(drawn);
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}
