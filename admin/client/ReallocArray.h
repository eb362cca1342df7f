/// An array of plain elements that grows by realloc: a large one is remapped by the C library, never copied, so that
/// growing needs no second copy of it in memory.
#pragma once

#include <sys/mman.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace olmdsess {

struct FreeDeleter {
    void operator()(void* block) const noexcept { std::free(block); }
};

/// `headerBytes` are kept free in front of the first element for whoever takes the block over.
template <class Element, std::size_t headerBytes = 0>
class ReallocArray {
    static_assert(std::is_trivially_copyable_v<Element>);
    static_assert(headerBytes % alignof(Element) == 0);

  public:
    ReallocArray() = default;
    ReallocArray(ReallocArray&& other) noexcept
        : m_block(std::move(other.m_block)),
          m_size(std::exchange(other.m_size, 0)),
          m_capacity(std::exchange(other.m_capacity, 0)),
          m_touched(std::exchange(other.m_touched, 0)) {}
    ReallocArray& operator=(ReallocArray&& other) noexcept {
        m_block = std::move(other.m_block);
        m_size = std::exchange(other.m_size, 0);
        m_capacity = std::exchange(other.m_capacity, 0);
        m_touched = std::exchange(other.m_touched, 0);
        return *this;
    }

    /// Throws std::bad_alloc; the array is then as it was.
    void append(const Element* elements, std::size_t count) {
        if (count == 0) {
            return;  // perhaps without any storage to copy to
        }
        if (count > m_capacity - m_size) {
            std::size_t wanted = m_capacity < kFirstCapacity ? kFirstCapacity : 2 * m_capacity;
            if (!tryReallocate(wanted > m_size + count ? wanted : m_size + count)) {
                throw std::bad_alloc();
            }
        }
        if (m_size + count > m_touched) {
            touch(m_size + count);
        }
        std::memcpy(data() + m_size, elements, count * sizeof(Element));
        m_size += count;
    }
    void append(const Element& element) { append(&element, 1); }

    /// Gives back what growing took in advance, unless the allocator cannot.
    void trim() noexcept {
        if (m_size < m_capacity) {
            tryReallocate(m_size);
        }
    }

    std::size_t size() const { return m_size; }
    Element* data() { return reinterpret_cast<Element*>(m_block.get() + headerBytes); }

    /// The block from its header on, to be released with free(); the array is empty afterwards.
    void* release() {
        m_size = m_capacity = m_touched = 0;
        return m_block.release();
    }

  private:
    static constexpr std::size_t kFirstCapacity = 16;

    bool tryReallocate(std::size_t capacity) noexcept {
        // Never 0 bytes: what realloc returns for those says nothing about success.
        void* block = std::realloc(m_block.get(), headerBytes + capacity * sizeof(Element) + 1);
        if (block == nullptr) {
            return false;
        }
        static_cast<void>(m_block.release());
        m_block.reset(static_cast<char*>(block));
        m_capacity = capacity;
        return true;
    }

    /// Before more than `size` elements are there: asks for the memory of a large array a few megabytes at a time,
    /// which costs less than when each of its pages is missed on its own. A system that cannot do so (madvise(2)) does
    /// as ever.
    void touch(std::size_t size) noexcept {
        constexpr std::size_t kStep = std::size_t{4} * 1024 * 1024 / sizeof(Element);
        constexpr std::uintptr_t kPage = 4096;
        m_touched = m_capacity < kStep ? m_capacity : std::min(m_capacity, size + kStep);
        if (m_capacity >= kStep) {
            char* start = reinterpret_cast<char*>(data() + m_size);
            start += -reinterpret_cast<std::uintptr_t>(start) & (kPage - 1);
            char* const end = reinterpret_cast<char*>(data() + m_touched);
            if (start < end) {
                madvise(start, static_cast<std::size_t>(end - start), MADV_POPULATE_WRITE);
            }
        }
    }

    std::unique_ptr<char, FreeDeleter> m_block;
    std::size_t m_size = 0;
    std::size_t m_capacity = 0;
    std::size_t m_touched = 0;
};

}  // namespace olmdsess
