// Preloaded into a program, fails the allocations from number SWEEP_FIRST to SWEEP_LAST, counted from the process's
// start. Who asked for the first of them, innermost first, is written to the file that SWEEP_REPORT names. SWEEP_PLAN
// may name a file of three 64-bit integers: the number of allocations so far, and the first and last to fail, which may
// be changed while the program runs. With SWEEP_CALL, which names pwrite64, write, fdatasync or accept4, it is that
// function's calls which are counted and fail, with the error number SWEEP_ERROR.

#include <execinfo.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

extern "C" void* __libc_malloc(std::size_t size);
extern "C" void* __libc_calloc(std::size_t count, std::size_t size);
extern "C" void* __libc_realloc(void* block, std::size_t size);
extern "C" void* __libc_memalign(std::size_t alignment, std::size_t size);

namespace {

std::uint64_t setting(const char* name) {
    return std::strtoull(std::getenv(name), nullptr, 10);
}

struct Plan {
    std::atomic<std::uint64_t> count, first, last;
};

std::uint64_t g_beforeMain = 0;

Plan* findPlan() {
    static Plan own{0, setting("SWEEP_FIRST"), setting("SWEEP_LAST")};
    const char* file = std::getenv("SWEEP_PLAN");
    void* shared = file == nullptr ? MAP_FAILED
                                   : mmap(nullptr, sizeof(Plan), PROT_READ | PROT_WRITE, MAP_SHARED,
                                          open(file, O_RDWR | O_CLOEXEC), 0);
    Plan* const plan = shared == MAP_FAILED ? &own : static_cast<Plan*>(shared);
    plan->count += g_beforeMain;
    return plan;
}

/// `call`: null for an allocation.
bool fails(const char* call = nullptr) {
    static thread_local bool reporting = false;
    if (reporting) {
        return false;
    }
    if (environ == nullptr) {  // the loader's come before there is an environment
        g_beforeMain += call == nullptr ? 1 : 0;
        return false;
    }
    static Plan* const plan = findPlan();
    static const char* const sought = std::getenv("SWEEP_CALL");
    if ((sought == nullptr) != (call == nullptr) || (call != nullptr && std::strcmp(call, sought) != 0)) {
        return false;
    }
    const std::uint64_t number = ++plan->count;
    const std::uint64_t first = plan->first;
    if (number < first || number > plan->last) {
        return false;
    }
    if (number == first) {
        reporting = true;  // what follows may allocate
        std::array<void*, 50> frames;
        const int file = open(std::getenv("SWEEP_REPORT"), O_WRONLY | O_CLOEXEC);
        backtrace_symbols_fd(frames.data(), backtrace(frames.data(), frames.size()), file);
        close(file);
        reporting = false;
    }
    errno = call == nullptr ? ENOMEM : static_cast<int>(setting("SWEEP_ERROR"));
    return true;
}

}  // namespace

#pragma GCC visibility push(default)
extern "C" {

void* malloc(std::size_t size) {
    return fails() ? nullptr : __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
    return fails() ? nullptr : __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) {
    return fails() ? nullptr : __libc_realloc(block, size);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) {
    return fails() ? nullptr : __libc_memalign(alignment, size);
}
int posix_memalign(void** block, std::size_t alignment, std::size_t size) {
    *block = aligned_alloc(alignment, size);
    return *block == nullptr ? ENOMEM : 0;
}

ssize_t pwrite64(int file, const void* bytes, std::size_t size, off64_t offset) {
    return fails("pwrite64") ? -1 : syscall(SYS_pwrite64, file, bytes, size, offset);
}
ssize_t write(int file, const void* bytes, std::size_t size) {
    return fails("write") ? -1 : syscall(SYS_write, file, bytes, size);
}
int fdatasync(int file) {
    return fails("fdatasync") ? -1 : static_cast<int>(syscall(SYS_fdatasync, file));
}
int accept4(int socket, sockaddr* address, socklen_t* size, int flags) {
    return fails("accept4") ? -1 : static_cast<int>(syscall(SYS_accept4, socket, address, size, flags));
}
}
