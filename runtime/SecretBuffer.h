/// Storage for text that must not stay behind in memory: passwords, and requests that carry one.
#pragma once

#include <cstddef>
#include <cstring>
#include <memory>
#include <vector>

/// Wipes every block before it is given back, also those that a growing container leaves behind.
template <class Element>
struct WipingAllocator {
    using value_type = Element;

    WipingAllocator() = default;
    template <class Other>
    WipingAllocator(const WipingAllocator<Other>&) noexcept {}

    Element* allocate(std::size_t count) { return std::allocator<Element>().allocate(count); }
    void deallocate(Element* block, std::size_t count) noexcept {
        explicit_bzero(block, count * sizeof(Element));
        std::allocator<Element>().deallocate(block, count);
    }
    bool operator==(const WipingAllocator&) const noexcept { return true; }
};

/// A vector rather than a string: a short string would lie inside the object and never be wiped.
using SecretBuffer = std::vector<char, WipingAllocator<char>>;
