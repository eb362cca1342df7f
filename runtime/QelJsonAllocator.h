/// The allocator that RapidJSON's readers and writers get: theirs writes through a null pointer when memory is
/// exhausted.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <new>

/// RapidJSON's Allocator concept. Throws std::bad_alloc.
struct QelJsonAllocator {
    static constexpr bool kNeedFree = true;

    void* Malloc(std::size_t size) { return Realloc(nullptr, 0, size); }
    void* Realloc(void* block, std::size_t /*oldSize*/, std::size_t size) {
        if (size == 0) {
            std::free(block);
            return nullptr;
        }
        void* moved = std::realloc(block, size);
        return moved == nullptr ? throw std::bad_alloc() : moved;
    }
    static void Free(void* block) noexcept { std::free(block); }
};
