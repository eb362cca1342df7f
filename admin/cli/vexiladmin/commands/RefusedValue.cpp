#include "admin/cli/vexiladmin/commands/RefusedValue.h"

#include <cstdio>

#include "runtime/qel_messages.h"
#include "runtime/qel_msg.h"

std::uint32_t refuseValue(const char* name) {
    std::fflush(stdout);
    qel_fprintf(stderr, kMsgInvalidValue, name);
    std::fputs("\n", stderr);
    return kStatusInvalidValue;
}
