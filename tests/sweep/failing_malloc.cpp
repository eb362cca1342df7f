// Preloaded into a program, fails allocations by their number, counted from the process's start. Numbers and findings
// lie in the file that SWEEP_CONTROL names, mapped, so that whoever runs the program sets and reads them.

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <unwind.h>

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

struct Control {
    std::atomic<std::uint64_t> count;
    std::uint64_t first, last;  // the allocations to fail
    char callers[2000];         // the files whose code asked for the first of them, innermost first
};

Control* control() {
    static Control* mapped = nullptr;
    const char* path = mapped == nullptr && environ != nullptr ? std::getenv("SWEEP_CONTROL") : nullptr;
    const int file = path == nullptr ? -1 : open(path, O_RDWR | O_CLOEXEC);
    if (file >= 0) {
        void* page = mmap(nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        mapped = page == MAP_FAILED ? nullptr : static_cast<Control*>(page);
        close(file);
    }
    return mapped;
}

_Unwind_Reason_Code addFile(_Unwind_Context* frame, void* callers) {
    char* text = static_cast<char*>(callers);
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(_Unwind_GetIP(frame)), &info) != 0 &&
        std::strlen(text) + std::strlen(info.dli_fname) + 2 < sizeof(Control::callers)) {
        std::strcat(std::strcat(text, basename(info.dli_fname)), " ");
    }
    return _URC_NO_REASON;
}

bool fails() {
    static thread_local bool busy = false;
    Control* plan = busy ? nullptr : control();
    const std::uint64_t number = plan == nullptr ? 0 : ++plan->count;
    if (plan == nullptr || number < plan->first || number > plan->last) {
        return false;
    }
    if (number == plan->first) {
        busy = true;  // what follows may allocate
        _Unwind_Backtrace(addFile, plan->callers);
        busy = false;
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
