#include "tests/server/Faults.h"

#include <crypt.h>
#include <dlfcn.h>
#include <openssl/hmac.h>
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

STANDS_IN unsigned char* HMAC(const EVP_MD* kind, const void* key, int keyLength, const unsigned char* bytes,
                              std::size_t length, unsigned char* digest, unsigned* digestLength) {
    static const auto real = reinterpret_cast<decltype(&HMAC)>(dlsym(RTLD_NEXT, "HMAC"));
    return g_faults.noDigest ? nullptr : real(kind, key, keyLength, bytes, length, digest, digestLength);
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
