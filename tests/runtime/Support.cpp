#include "Support.h"

#include <new>

void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
    FailingNew::left -= FailingNew::left == INT_MAX ? 0 : 1;
    return FailingNew::left < 0 ? nullptr : std::malloc(size == 0 ? 1 : size);
}

void* operator new(std::size_t size) {
    void* block = operator new(size, std::nothrow);
    return block == nullptr ? throw std::bad_alloc() : block;
}

void operator delete(void* block) noexcept {
    std::free(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept {
    std::free(block);
}
