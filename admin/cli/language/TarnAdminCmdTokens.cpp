#include "admin/cli/language/TarnAdminCmdTokens.h"

#include <cstdio>
#include <cstring>
#include <new>

#include "catalogue/qel_messages.h"
#include "catalogue/qel_msg.h"

std::uint32_t TarnAdminCmdTokens::set(const char* text) {
    m_count = 0;
    try {
        m_text = text;
    } catch (const std::bad_alloc&) {
        m_text.wipe();
        qel_fprintf(stderr, kStatusNoMemory);
        return kStatusNoMemory;
    }
    constexpr char kSeparators[] = " \t\n";
    for (char* word = std::strtok(m_text.data(), kSeparators); word != nullptr && m_count < kMaxTokens;
         word = std::strtok(nullptr, kSeparators)) {
        m_tokens[m_count++] = word;
    }
    return 0;
}

const char* TarnAdminCmdTokens::operator[](std::int32_t index) const {
    return index >= 0 && index < m_count ? m_tokens[index] : nullptr;
}
