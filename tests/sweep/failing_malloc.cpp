// Preloaded into a program, fails the allocations from number SWEEP_FIRST to SWEEP_LAST, counted from the process's
// start. Who asked for the first of them, innermost first, is written to the file that SWEEP_REPORT names.

#include <execinfo.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>

extern "C" void* __libc_malloc(std::size_t size);
extern "C" void* __libc_calloc(std::size_t count, std::size_t size);
extern "C" void* __libc_realloc(void* block, std::size_t size);
extern "C" void* __libc_memalign(std::size_t alignment, std::size_t size);

namespace {

std::uint64_t setting(const char* name) {
    return std::strtoull(std::getenv(name), nullptr, 10);
}

bool fails() {
    static std::atomic<std::uint64_t> count;
    static thread_local bool reporting = false;
    if (reporting) {
        return false;
    }
    const std::uint64_t number = ++count;
    // The loader's come before there is an environment.
    if (environ == nullptr || number < setting("SWEEP_FIRST") || number > setting("SWEEP_LAST")) {
        return false;
    }
    if (number == setting("SWEEP_FIRST")) {
        reporting = true;  // what follows may allocate
        std::array<void*, 50> frames;
        const int file = open(std::getenv("SWEEP_REPORT"), O_WRONLY | O_CLOEXEC);
        backtrace_symbols_fd(frames.data(), backtrace(frames.data(), frames.size()), file);
        close(file);
        reporting = false;
    }
    errno = ENOMEM;
    return true;
}

}  // namespace

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
}
