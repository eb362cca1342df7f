/// Storage of results handed to the caller. A result is a header with the records behind it. The header owns what the
/// records point to, and is found again from the address of the first record, so that one release frees all.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>
#include <type_traits>
#include <utility>

#include "admin/client-interface/olm_dsess_admin.h"

namespace olmdsess {

/// Texts, each with a NUL behind it, in a chain of blocks: a text that is finished stays where it is.
class TextArena {
  public:
    TextArena() = default;
    TextArena(TextArena&& other) noexcept : m(std::exchange(other.m, {})) {}
    TextArena& operator=(TextArena&& other) noexcept {
        std::swap(m, other.m);
        return *this;
    }
    ~TextArena() { free(m.blocks); }

    /// Adds to the text that has been begun, or begins one. Throws std::bad_alloc.
    void append(std::string_view part) {
        if (part.size() >= static_cast<std::size_t>(m.end - m.at)) {  // no room for it and a NUL
            grow(part.size());
        }
        std::memcpy(m.at, part.data(), part.size());
        m.at += part.size();
    }
    /// Ends the text, to which something has been appended, be it nothing but an empty part. Returns where it lies.
    char* finish() {
        *m.at = '\0';
        return std::exchange(m.begun, ++m.at);
    }

    struct Block {
        Block* next;
    };
    /// The chain, to be released with free(); the arena is empty afterwards.
    Block* release() { return std::exchange(m, {}).blocks; }
    static void free(Block* blocks) noexcept;

  private:
    void grow(std::size_t more);

    struct State {
        Block* blocks = nullptr;  // the newest first; the bytes lie behind it
        char* begun = nullptr;    // the text in hand
        char* at = nullptr;       // where it goes on
        char* end = nullptr;
    };
    State m;
};

/// An array of plain elements that grows by realloc: a large one is remapped by the C library, never copied, so that
/// growing needs no second copy of it in memory. `headerBytes` are kept free in front of the first element.
template <class Element, std::size_t headerBytes = 0>
class ReallocArray {
    static_assert(std::is_trivially_copyable_v<Element>);
    static_assert(headerBytes % alignof(Element) == 0);

  public:
    ReallocArray() = default;
    ReallocArray(ReallocArray&& other) noexcept : m(std::exchange(other.m, {})) {}
    ReallocArray& operator=(ReallocArray&& other) noexcept {
        std::swap(m, other.m);
        return *this;
    }
    ~ReallocArray() { std::free(m.block); }

    /// Throws std::bad_alloc; the array is then as it was.
    void append(const Element& element) {
        if (m.size == m.capacity && !tryReallocate(m.capacity < kFirstCapacity ? kFirstCapacity : 2 * m.capacity)) {
            throw std::bad_alloc();
        }
        data()[m.size++] = element;
    }

    std::size_t size() const { return m.size; }
    Element* data() { return reinterpret_cast<Element*>(m.block + headerBytes); }

    /// The block from its header on, to be released with std::free; what growing took in advance has been given back,
    /// unless the allocator cannot. The array is empty afterwards.
    char* release() noexcept {
        if (m.size < m.capacity) {
            tryReallocate(m.size);
        }
        return std::exchange(m, {}).block;
    }

  private:
    static constexpr std::size_t kFirstCapacity = 16;

    bool tryReallocate(std::size_t capacity) noexcept {
        // Never 0 bytes: what realloc returns for those says nothing about success.
        auto* block = static_cast<char*>(std::realloc(m.block, headerBytes + capacity * sizeof(Element) + 1));
        if (block == nullptr) {
            return false;
        }
        m.block = block;
        m.capacity = capacity;
        return true;
    }

    struct State {
        char* block = nullptr;
        std::size_t size = 0;
        std::size_t capacity = 0;
    };
    State m;
};

struct alignas(std::max_align_t) ResultHeader {
    std::int32_t kind;        ///< OLM_DSESS_ADMIN_FREE_*
    TextArena::Block* texts;  ///< of the records, or null
    char* names;              ///< lists of names of the records, or null
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
    auto* header = reinterpret_cast<ResultHeader*>(records.release());
    *header = {kind, texts.release(), names.release()};
    return reinterpret_cast<Record*>(header + 1);
}

/// A text of its own, to be released as a result of the given kind. Throws std::bad_alloc.
char* makeTextResult(std::int32_t kind, std::string_view text);

/// Releases the result whose first record lies at `records`. Null, and a result of another kind, are left alone: false.
bool releaseResult(std::int32_t kind, void* records);

}  // namespace olmdsess
