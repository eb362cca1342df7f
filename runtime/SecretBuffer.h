/// Storage for text that must not stay behind in memory: passwords, and requests that carry one.
#pragma once

#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

/// An allocator that wipes every block before it gives it back, also those that a growing container leaves behind.
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

using SecretBuffer = std::vector<char, WipingAllocator<char>>;

/// A string that wipes what it held, also the place for short texts inside the object.
class SecretText : public std::basic_string<char, std::char_traits<char>, WipingAllocator<char>> {
    using Base = std::basic_string<char, std::char_traits<char>, WipingAllocator<char>>;

  public:
    using Base::Base;
    SecretText() = default;
    SecretText(const SecretText&) = default;
    SecretText(SecretText&& other) noexcept : Base(std::move(other)) {
        other.wipe();  // NOLINT(bugprone-use-after-move): a short text has been copied and is still there
    }
    SecretText& operator=(const SecretText& other) {
        SecretText copy(other);
        return *this = std::move(copy);
    }
    SecretText& operator=(SecretText&& other) noexcept {
        wipe();
        Base::operator=(std::move(other));
        other.wipe();  // NOLINT(bugprone-use-after-move)
        return *this;
    }
    ~SecretText() { wipe(); }

    /// Leaves it empty.
    void wipe() noexcept {
        explicit_bzero(data(), capacity());
        clear();
    }
};
