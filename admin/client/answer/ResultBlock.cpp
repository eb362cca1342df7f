#include "admin/client/answer/ResultBlock.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdint>

namespace olmdsess {

namespace {

/// Bytes of the first block for texts, and of the largest. Each block has twice as many as the one before it.
constexpr std::ptrdiff_t kFirstBytes = 1024;
constexpr std::ptrdiff_t kMostBytes = std::ptrdiff_t{16} * 1024 * 1024;
/// Blocks of this size and more get pages of 2 MiB: they take a long listing less time than pages of 4 KiB.
constexpr std::size_t kLargeBytes = std::size_t{4} * 1024 * 1024;

}  // namespace

// A text that is alone in its block grows by growing the block, so that no copy of its beginning is left behind.
void TextArena::grow(std::size_t more) {
    const std::size_t begun = m_at - m_begun;
    char* const last = m_blocks.empty() ? nullptr : m_blocks.back().get();
    const auto usual = last == nullptr ? kFirstBytes : std::min(2 * (m_end - last), kMostBytes);
    const std::size_t bytes = std::max<std::size_t>(usual, 2 * (begun + more + 1));
    if (last == nullptr || last != m_begun) {
        m_blocks.emplace_back();
    }
    MallocPtr& block = m_blocks.back();
    auto* const grown = static_cast<char*>(std::realloc(block.get(), bytes));
    if (grown == nullptr) {
        throw std::bad_alloc();
    }
    if (bytes >= kLargeBytes) {
        constexpr std::uintptr_t kPage = 4096;
        char* const page = grown + (-reinterpret_cast<std::uintptr_t>(grown) & (kPage - 1));
        madvise(page, bytes - kPage, MADV_HUGEPAGE);  // whether or not the system has any
    }
    m_bytes += bytes;
    if (block.release() == nullptr) {
        std::copy_n(m_begun, begun, grown);
    } else {
        m_bytes -= m_end - m_begun;
    }
    block.reset(grown);
    m_begun = grown;
    m_at = grown + begun;
    m_end = grown + bytes;
}

char* makeTextResult(std::int32_t kind, std::string_view text) {
    RecordList<char> copy;
    std::for_each(text.begin(), text.end(), [&copy](char byte) { copy.append(byte); });
    copy.append('\0');
    TextArena noTexts;
    NameList noNames;
    return makeResult(kind, copy, noTexts, noNames);
}

bool releaseResult(std::int32_t kind, void* records) {
    auto* header = records == nullptr ? nullptr : static_cast<ResultHeader*>(records) - 1;
    if (header == nullptr || header->kind != kind) {
        return false;
    }
    header->~ResultHeader();
    std::free(header);
    return true;
}

}  // namespace olmdsess
