/// Storage of results handed to the caller. A result is a header with the records behind it. The header owns what the
/// records point to, and is found again from the address of the first record, so that one release frees all.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include "admin/client-interface/olm_dsess_admin.h"

namespace olmdsess {

struct FreeDeleter {
    void operator()(void* block) const noexcept { std::free(block); }
};
using MallocPtr = std::unique_ptr<char, FreeDeleter>;

/// Texts, each with a NUL behind it, in several blocks: a text that is finished stays where it is.
class TextArena {
  public:
    /// Adds to the text that has been begun, or begins one. Throws std::bad_alloc.
    void append(std::string_view part) {
        if (part.size() >= static_cast<std::size_t>(m_end - m_at)) {  // no room for it and a NUL
            grow(part.size());
        }
        std::memcpy(m_at, part.data(), part.size());
        m_at += part.size();
    }
    /// Ends the text, to which something has been appended, be it nothing but an empty part. Returns where it lies.
    char* finish() {
        assert(m_at < m_end);
        *m_at = '\0';
        return std::exchange(m_begun, ++m_at);
    }

    /// The blocks, for whoever owns the texts from now on. The arena may only be destroyed or assigned to then.
    std::vector<MallocPtr> release() { return std::move(m_blocks); }
    /// The size of all blocks together.
    std::size_t bytes() const { return m_bytes; }

  private:
    void grow(std::size_t more);

    std::vector<MallocPtr> m_blocks;
    std::size_t m_bytes = 0;
    char* m_begun = nullptr;  // the text in hand
    char* m_at = nullptr;     // where it goes on
    char* m_end = nullptr;    // of the last block
};

/// An array of plain elements that grows by realloc: a large one is remapped by the C library, never copied, so that
/// growing needs no second copy of it in memory. `headerBytes` are kept free in front of the first element.
template <class Element, std::size_t headerBytes = 0>
class ReallocArray {
    static_assert(std::is_trivially_copyable_v<Element>);
    static_assert(headerBytes % alignof(Element) == 0);

  public:
    /// Throws std::bad_alloc; the array is then as it was.
    void append(const Element& element) {
        if (m_size == m_capacity && !tryReallocate(m_capacity == 0 ? 16 : 2 * m_capacity)) {
            throw std::bad_alloc();
        }
        data()[m_size++] = element;
    }

    std::size_t size() const { return m_size; }
    /// The size of the elements. Room for further ones is not counted: no page of it is touched yet.
    std::size_t bytes() const { return m_size * sizeof(Element); }
    Element* begin() { return m_size == 0 ? nullptr : data(); }
    Element* end() { return begin() + m_size; }
    Element* data() { return reinterpret_cast<Element*>(m_block.get() + headerBytes); }

    /// Gives back what growing took in advance, unless the allocator cannot. The elements may move.
    void trim() noexcept { tryReallocate(m_size); }
    /// The block from its header on. The array may only be destroyed or assigned to then.
    MallocPtr release() noexcept { return std::move(m_block); }

  private:
    bool tryReallocate(std::size_t capacity) noexcept {
        // One byte more than needed: asked for 0 bytes, realloc(3) may return null without having failed.
        void* block = std::realloc(m_block.get(), headerBytes + capacity * sizeof(Element) + 1);
        if (block == nullptr) {
            return false;
        }
        static_cast<void>(m_block.release());
        m_block.reset(static_cast<char*>(block));
        m_capacity = capacity;
        return true;
    }

    MallocPtr m_block;
    std::size_t m_size = 0;
    std::size_t m_capacity = 0;
};

struct alignas(std::max_align_t) ResultHeader {
    std::int32_t kind;             ///< OLM_DSESS_ADMIN_FREE_*
    std::vector<MallocPtr> texts;  ///< of the records
    MallocPtr names;               ///< lists of names of the records
};

using NameList = ReallocArray<char*>;
template <class Record>
using RecordList = ReallocArray<Record, sizeof(ResultHeader)>;

/// Makes a result of the given kind and hands it to the caller; null when there are no records.
template <class Record>
Record* makeResult(std::int32_t kind, RecordList<Record>& records, TextArena& texts, NameList& names) noexcept {
    if (records.size() == 0) {
        return nullptr;
    }
    records.trim();
    auto* header = new (records.release().release()) ResultHeader{kind, texts.release(), names.release()};
    return reinterpret_cast<Record*>(header + 1);
}

/// A text of its own, to be released as a result of the given kind. Throws std::bad_alloc.
char* makeTextResult(std::int32_t kind, std::string_view text);

/// Releases the result whose first record lies at `records`. Null, and a result of another kind, are left alone: false.
bool releaseResult(std::int32_t kind, void* records);

}  // namespace olmdsess
