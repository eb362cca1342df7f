#include "admin/cli/vexiladmin/TarnAdminCmdTokens.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "runtime/qel_messages.h"
#include "runtime/qel_msg.h"

TarnAdminCmdTokens::~TarnAdminCmdTokens() {
    std::free(m_buffer);
}

std::uint32_t TarnAdminCmdTokens::set(const char* text) {
    std::free(m_buffer);
    m_count = 0;
    m_buffer = strdup(text);
    if (m_buffer == nullptr) {
        qel_fprintf(stderr, kStatusNoMemory);
        return kStatusNoMemory;
    }
    constexpr char kSeparators[] = " \t\n";
    for (char* word = std::strtok(m_buffer, kSeparators); word != nullptr && m_count < kMaxTokens;
         word = std::strtok(nullptr, kSeparators)) {
        m_tokens[m_count++] = word;
    }
    return 0;
}

const char* TarnAdminCmdTokens::operator[](std::int32_t index) const {
    return index >= 0 && index < m_count ? m_tokens[index] : nullptr;
}
