// Preloaded into a program, fails the allocations from number SWEEP_FIRST to SWEEP_LAST, counted from the process's
// start. Who asked for the first of them, innermost first, is written to the file that SWEEP_REPORT names. SWEEP_PLAN
// may name a file of three 64-bit integers: the number of allocations so far, and the first and last to fail, which may
// be changed while the program runs.

#include <execinfo.h>
#include <fcntl.h>
#include <sys/mman.h>
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

struct Plan {
    std::atomic<std::uint64_t> count, first, last;
};

Plan* findPlan() {
    static Plan own{0, setting("SWEEP_FIRST"), setting("SWEEP_LAST")};
    const char* file = std::getenv("SWEEP_PLAN");
    void* shared = file == nullptr ? MAP_FAILED
                                   : mmap(nullptr, sizeof(Plan), PROT_READ | PROT_WRITE, MAP_SHARED,
                                          open(file, O_RDWR | O_CLOEXEC), 0);
    return shared == MAP_FAILED ? &own : static_cast<Plan*>(shared);
}

bool fails() {
    static std::uint64_t before = 0;
    static thread_local bool reporting = false;
    if (reporting) {
        return false;
    }
    if (environ == nullptr) {  // the loader's come before there is an environment
        ++before;
        return false;
    }
    static Plan* const plan = findPlan();
    const std::uint64_t number = ++plan->count + before;
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
