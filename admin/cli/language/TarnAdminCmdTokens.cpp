#include "admin/cli/language/TarnAdminCmdTokens.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "catalogue/qel_messages.h"
#include "catalogue/qel_msg.h"

TarnAdminCmdTokens::~TarnAdminCmdTokens() {
    clear();
}

void TarnAdminCmdTokens::clear() {
    m_count = 0;
    if (m_buffer != nullptr) {
        explicit_bzero(m_buffer, m_length);
        std::free(m_buffer);
        m_buffer = nullptr;
    }
}

std::uint32_t TarnAdminCmdTokens::set(const char* text) {
    clear();
    m_length = std::strlen(text);
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
