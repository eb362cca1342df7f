#include "tests/server/Faults.h"

#include <crypt.h>
#include <dlfcn.h>
#include <openssl/evp.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

Faults g_faults;

#define STANDS_IN extern "C" __attribute__((visibility("default")))

STANDS_IN int fdatasync(int) {
    ++g_faults.syncs;
    errno = EIO;
    return g_faults.noSync ? -1 : 0;
}

STANDS_IN int clock_gettime(clockid_t clock, timespec* time) {
    const auto& ahead = clock == CLOCK_REALTIME ? g_faults.dayAhead : g_faults.clockAhead;
    const long result = syscall(SYS_clock_gettime, clock, time);
    time->tv_sec += ahead.load().count();
    return static_cast<int>(result);
}

STANDS_IN int EVP_MAC_final(EVP_MAC_CTX* mac, unsigned char* digest, std::size_t* length, std::size_t room) {
    static const auto real = reinterpret_cast<decltype(&EVP_MAC_final)>(dlsym(RTLD_NEXT, "EVP_MAC_final"));
    return g_faults.noDigest ? 0 : real(mac, digest, length, room);
}

STANDS_IN char* crypt_r(const char* phrase, const char* setting, crypt_data* data) {
    static const auto real = reinterpret_cast<decltype(&crypt_r)>(dlsym(RTLD_NEXT, "crypt_r"));
    static char failed[] = "*0";
    if (!g_faults.noHash) {
        return real(phrase, setting, data);
    }
    errno = ENOMEM;
    return failed;
}
