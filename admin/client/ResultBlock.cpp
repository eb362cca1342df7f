#include "admin/client/ResultBlock.h"

#include <algorithm>

namespace olmdsess {

namespace {

/// What a block offers texts. Each has twice as much as the one before it, up to the greatest.
constexpr std::size_t kFirstBytes = 1024;
constexpr std::size_t kMostBytes = std::size_t{1} << 20;

char* bytesOf(TextArena::Block* block) {
    return reinterpret_cast<char*>(block + 1);
}

}  // namespace

// A text that comes in parts and fills a block alone takes the block along as it grows, so that no copies of it stay.
void TextArena::grow(std::size_t more) {
    const std::size_t begun = m.at - m.begun;
    const bool isAlone = m.blocks != nullptr && m.begun == bytesOf(m.blocks);
    const std::size_t last = m.blocks == nullptr ? kFirstBytes / 2 : m.end - bytesOf(m.blocks);
    const std::size_t bytes = std::max(std::min(2 * last, kMostBytes), 2 * (begun + more + 1));
    auto* block = static_cast<Block*>(std::realloc(isAlone ? m.blocks : nullptr, sizeof(Block) + bytes));
    if (block == nullptr) {
        throw std::bad_alloc();
    }
    if (!isAlone) {
        block->next = m.blocks;
        std::copy_n(m.begun, begun, bytesOf(block));
    }
    m = {block, bytesOf(block), bytesOf(block) + begun, bytesOf(block) + bytes};
}

void TextArena::free(Block* blocks) noexcept {
    while (blocks != nullptr) {
        std::free(std::exchange(blocks, blocks->next));
    }
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
    if (records == nullptr) {
        return false;
    }
    auto* header = static_cast<ResultHeader*>(records) - 1;
    if (header->kind != kind) {
        return false;
    }
    TextArena::free(header->texts);
    std::free(header->names);
    std::free(header);
    return true;
}

}  // namespace olmdsess
