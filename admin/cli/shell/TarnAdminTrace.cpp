#include "admin/cli/shell/TarnAdminTrace.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "catalogue/QelString.h"

std::int32_t g_debugLevel = 0;
bool g_toldCause = false;

void olmdsess_admin_client_trace(std::int32_t level, const char* format, ...) {
    if (g_debugLevel < level) {
        return;
    }
    g_toldCause = level <= 0;
    char buffer[4096];
    std::va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(buffer, sizeof(buffer), format, arguments);
    va_end(arguments);
    if (length < 0) {
        return;
    }
    QelString line;
    if (line.set(buffer, QelString::kForDisplay) == 0) {
        std::fputs(line.data(), stdout);
        return;
    }
    for (const char* next = buffer; *next != '\0'; ++next) {
        // There was no memory for the conversion, so all that is not plain ASCII is made visible byte by byte.
        const bool isPlain = (*next >= ' ' && *next <= '~') || std::strcmp(next, "\n") == 0;
        std::printf(isPlain ? "%c" : "\\x%02X", static_cast<unsigned char>(*next));
    }
}
